// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace sealscope {

/// Looks for text in a direction's data: gathers as little as it has to, and never much at a time. Not thread-safe; outlived by the
/// data.
class StreamWindow {
public:
    explicit StreamWindow(const StreamData& data) : data_(data) {}

    /// The line that begins at an offset, its line feed included; empty when there is none within `longest` bytes. Valid until
    /// the next call.
    DataView line(std::int64_t offset, std::int64_t longest);
    /// The lines from an offset up to and with the next empty one (RFC 9112 §2.1); empty when there is none within `longest` bytes.
    DataView lines(std::int64_t offset, std::int64_t longest);
    /// The same bytes, however they end.
    DataView bytes(std::int64_t offset, std::int64_t count) { return data_.gather(offset, count, scratch_); }
    /// The first offset in a range at which a line begins that `isWanted` accepts; the range's first byte counts as a line's.
    /// Lines longer than 64 KiB are wanted by nobody.
    std::optional<std::int64_t> findLine(ByteRange range, const std::function<bool(std::string_view line)>& isWanted);

private:
    /// Bytes from an offset on, gathered in steps until `endOf` finds an end in them.
    template <class EndOf> DataView upTo(std::int64_t offset, std::int64_t longest, const EndOf& endOf);

    const StreamData& data_;
    std::vector<std::uint8_t> scratch_;
};

}  // namespace sealscope
