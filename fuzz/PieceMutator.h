// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <utility>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maximum);

namespace sealscope {

/// Changes inputs that are a row of pieces with lengths in them (packets of a capture, records of a stream): leaves pieces out, repeats
/// them, changes their order, and changes what is in one so that its length stays true. Bytes alone seldom come to that.
class PieceMutator {
public:
    using Piece = std::vector<std::uint8_t>;

    /// `cut` gives the length of the piece that a rest of the input begins with, `repair` makes the lengths in a changed piece true.
    /// The first `fixed` bytes are no piece.
    PieceMutator(std::size_t fixed, std::function<std::int64_t(DataView)> cut, std::function<void(Piece&)> repair)
        : fixed_(fixed), cut_(std::move(cut)), repair_(std::move(repair))
    {}

    std::size_t mutate(std::uint8_t* data, std::size_t size, std::size_t maximum, unsigned seed) const
    {
        std::minstd_rand random(seed);
        std::vector<Piece> pieces = size > fixed_ ? cut(DataView(data, static_cast<std::int64_t>(size))) : std::vector<Piece>();
        // Every third time the bytes, so that lengths come to be wrong as well.
        if (pieces.empty() || random() % 3 == 0) return LLVMFuzzerMutate(data, size, maximum);
        const auto any = [&] { return static_cast<std::ptrdiff_t>(random() % pieces.size()); };
        switch (random() % 5) {
        case 0: pieces.erase(pieces.begin() + any()); break;
        case 1: pieces.insert(pieces.begin() + any(), Piece(pieces[static_cast<std::size_t>(any())])); break;
        case 2: std::swap(pieces[static_cast<std::size_t>(any())], pieces[static_cast<std::size_t>(any())]); break;
        default: {
            Piece& piece = pieces[static_cast<std::size_t>(any())];
            const std::size_t before = piece.size(), room = before + std::min<std::size_t>(maximum - size, 4'096);
            piece.resize(room);
            piece.resize(LLVMFuzzerMutate(piece.data(), before, room));
            repair_(piece);
        }
        }
        std::size_t end = fixed_;
        for (const Piece& piece : pieces) {
            const std::size_t count = std::min(piece.size(), maximum - end);
            std::copy_n(piece.begin(), count, data + end);
            end += count;
        }
        return end;
    }

    /// TLS records behind `fixed` bytes.
    static PieceMutator records(std::size_t fixed)
    {
        return {fixed, [](DataView rest) { return rest.size() < 5 ? rest.size() : 5 + std::int64_t{rest.u16(3)}; },
                [](Piece& piece) {
                    if (piece.size() < 5) return;
                    const std::size_t length = piece.size() - 5;
                    piece[3] = static_cast<std::uint8_t>(length >> 8);
                    piece[4] = static_cast<std::uint8_t>(length);
                }};
    }

private:
    std::vector<Piece> cut(DataView input) const
    {
        std::vector<Piece> pieces;
        for (DataView rest = input.from(static_cast<std::int64_t>(fixed_)); !rest.isEmpty();) {
            const DataView piece = rest.sub(0, std::clamp<std::int64_t>(cut_(rest), 1, rest.size()));
            pieces.emplace_back(piece.begin(), piece.end());
            rest = rest.from(piece.size());
        }
        return pieces;
    }

    std::size_t fixed_;
    std::function<std::int64_t(DataView)> cut_;
    std::function<void(Piece&)> repair_;
};

}  // namespace sealscope
