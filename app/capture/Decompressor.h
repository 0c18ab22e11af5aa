// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ReadError.h"
#include "platform/Data.h"

#include <expected>
#include <memory>
#include <span>

namespace sealscope {

/// Unpacks a compressed stream piece by piece. Streams of one kind laid end to end (gzip members, frames) count as one.
class Decompressor {
public:
    /// Bytes of a file's beginning that tell whether and how it is compressed.
    static constexpr std::int64_t recognisedFrom = 64;
    /// The one for a file of `storedSize` bytes (negative when unknown) that begins with `head`; null when the file is not
    /// compressed in a known way. A small file gets little memory for being unpacked.
    static std::unique_ptr<Decompressor> recognise(DataView head, std::int64_t storedSize);
    virtual ~Decompressor() = default;

    /// "gzip", "zstd" or "lz4".
    virtual const char* name() const = 0;
    /// Unpacks from the front of `input` to the front of `output` and shortens both by what was used; stops when either is
    /// used up. Without input it gives what it still holds. Fails when the input is damaged.
    virtual std::expected<void, UnpackError> step(std::span<const std::uint8_t>& input, std::span<std::uint8_t>& output) = 0;
    /// True where the compressed stream may end: between members, not inside of one.
    virtual bool mayEnd() const = 0;
};

}  // namespace sealscope
