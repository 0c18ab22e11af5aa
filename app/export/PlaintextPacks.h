// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <oneapi/tbb/parallel_pipeline.h>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// Plaintext of records that follow each other in one direction, in one place.
class PlaintextPack {
public:
    struct Record {
        std::int64_t length = 0;  ///< of its plaintext
        ByteRange body;           ///< in the captured direction
        std::optional<PlaintextGap> gap;  ///< in front of it
    };

    /// Takes the next records of a reader in place of those before, until about `wanted` bytes are there, or very many records.
    void fill(PlaintextReader& reader, std::int64_t wanted)
    {
        const std::int64_t room = wanted + PlaintextReader::largestRecord;
        if (room_ < room) {
            buffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(room));
            room_ = room;
        }
        size_ = 0;
        records_.clear();
        hasGaps_ = false;
        while (size_ < wanted && records_.size() < mostRecords) {
            const auto record = reader.next({buffer_.get() + size_, static_cast<std::size_t>(PlaintextReader::largestRecord)});
            if (!record) return;
            size_ += record->plaintext.size();
            records_.push_back({record->plaintext.size(), record->body, record->gap});
            hasGaps_ = hasGaps_ || record->gap;
        }
    }

    DataView bytes() const { return {buffer_.get(), size_}; }
    const std::vector<Record>& records() const { return records_; }
    bool hasGaps() const { return hasGaps_; }

private:
    static constexpr std::size_t mostRecords = 4'096;
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::int64_t room_ = 0;
    std::int64_t size_ = 0;
    std::vector<Record> records_;
    bool hasGaps_ = false;
};

/// Hands the plaintext of a direction of `size` captured bytes to `take`, which ends everything by giving false. Of a large
/// direction records are opened on one thread while another takes what was opened before.
template <class Take> void forEachPack(PlaintextReader& reader, std::int64_t size, const Take& take)
{
    constexpr std::int64_t packSize = 256 * 1'024, large = 16 * packSize;
    if (size < large) {
        PlaintextPack pack;
        do pack.fill(reader, std::min(size, packSize));
        while (!pack.records().empty() && take(pack));
        return;
    }
    // As many as are on their way at once; each comes back when the one that had its place before has been taken.
    std::array<PlaintextPack, 4> packs;
    std::size_t next = 0;
    std::atomic<bool> isWanted = true;
    const auto open = [&](oneapi::tbb::flow_control& control) -> PlaintextPack* {
        PlaintextPack& pack = packs[next++ % packs.size()];
        if (isWanted) pack.fill(reader, packSize);
        if (!isWanted || pack.records().empty()) control.stop();
        return &pack;
    };
    const auto hand = [&](const PlaintextPack* pack) { isWanted = isWanted && take(*pack); };
    using oneapi::tbb::filter_mode;
    oneapi::tbb::parallel_pipeline(packs.size(), oneapi::tbb::make_filter<void, PlaintextPack*>(filter_mode::serial_in_order, open) &
                                                     oneapi::tbb::make_filter<PlaintextPack*, void>(filter_mode::serial_in_order, hand));
}

}  // namespace sealscope
