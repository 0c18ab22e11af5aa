// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDirectionWalk.h"
#include "host/VELModels/StreamData.h"
#include "platform/LentBlocks.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

namespace sealscope {

/// The plaintext of one direction: the first of it is kept, and what lies behind is opened anew when somebody reads it. Nothing
/// changes once it is built; any thread may read it then.
class TLSPlaintext final : public StreamByteSource {
public:
    /// Begins to open a direction's records, from the first on; nothing without keys.
    using Begin = std::function<std::optional<TLSDirectionWalk>(const StreamData& captured)>;

    TLSPlaintext(StreamData captured, Begin begin) : captured_(std::move(captured)), begin_(std::move(begin)) {}

    /// Opens all that opens, and calls `took` with each record's body in the captured data and the end of what is there then.
    void open(const std::function<void(ByteRange body, std::int64_t end)>& took);
    std::int64_t size() const { return size_; }

    DataView stretch(std::int64_t offset) const override;
    bool lendsForLong() const override { return isKept_; }

private:
    static constexpr std::int64_t blockSize = 1 << 18, keptBytes = 4 << 20;

    using Bytes = std::shared_ptr<std::uint8_t[]>;
    struct Block {
        std::int64_t begin = 0;  ///< in the plaintext
        std::int64_t end = 0;
        TLSDirectionWalk::Position first;  ///< where the walk stood before its first record
        Bytes bytes;                       ///< null: to be opened anew
    };

    std::uint8_t* room(std::int64_t count, const TLSDirectionWalk::Position& position);
    void endBlock();
    Bytes opened(const Block& block) const;

    StreamData captured_;
    Begin begin_;
    std::vector<Block> blocks_;
    Bytes spare_;  ///< of a block that is not kept
    std::int64_t size_ = 0;
    bool isKept_ = true;  ///< every block
    mutable LentBlocks<std::monostate> lent_;
};

}  // namespace sealscope
