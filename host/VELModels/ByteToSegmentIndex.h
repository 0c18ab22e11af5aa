// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <memory>
#include <optional>
#include <unordered_set>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Bytes of one direction's data, the packets that carried them and when they were captured.
struct ByteSpan {
    ByteRange range;
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;  ///< seconds since 1970
    bool operator==(const ByteSpan&) const = default;
};

/// The packets that carried any byte of a range, in sequence order and each once, and the earliest of their times;
/// nothing of either for bytes that no packet carried.
struct ByteLocation {
    std::optional<double> timestamp;
    std::vector<std::int64_t> packetIds;
    bool operator==(const ByteLocation&) const = default;
};

/// Finds the packets behind a range of bytes. Implementations are immutable and may be read from any thread.
class ByteLocator {
public:
    virtual ~ByteLocator() = default;
    /// Costs a binary search plus the length of the answer.
    virtual ByteLocation locate(ByteRange range) const = 0;
};

/// The index from byte ranges of one direction's data to packets. Cheap to copy; any thread may read it.
class ByteToSegmentIndex {
public:
    /// Of data that no packet carries.
    static const ByteToSegmentIndex empty;

    ByteToSegmentIndex() = default;
    /// An index over spans in any order.
    explicit ByteToSegmentIndex(std::vector<ByteSpan> spans);
    /// An index that is kept elsewhere.
    explicit ByteToSegmentIndex(std::shared_ptr<const ByteLocator> locator) : locator_(std::move(locator)) {}

    ByteLocation locate(ByteRange range) const { return locator_ && !range.isEmpty() ? locator_->locate(range) : ByteLocation{}; }

private:
    std::shared_ptr<const ByteLocator> locator_;
};

/// Appends packet ids so that each stands once, in the order first met.
class PacketIdCollector {
public:
    explicit PacketIdCollector(std::vector<std::int64_t>& packetIds) : packetIds_(packetIds) {}
    void add(std::int64_t packetId);

private:
    std::vector<std::int64_t>& packetIds_;
    /// packetIds_ again, from the first id on that is not larger than all before it.
    std::unique_ptr<std::unordered_set<std::int64_t>> seen_;
};

}  // namespace sealscope SEALSCOPE_API
