// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/StreamWindow.h"

#include <algorithm>

namespace sealscope {

namespace {

constexpr std::int64_t firstStep = 2'048;
constexpr std::int64_t longestLine = 65'536;

}  // namespace

template <class EndOf> DataView StreamWindow::upTo(std::int64_t offset, std::int64_t longest, const EndOf& endOf)
{
    longest = std::min(longest, data_.size() - offset);
    std::int64_t searched = 0;
    for (std::int64_t count = std::clamp<std::int64_t>(data_.stretch(offset).size(), firstStep, longestLine); longest > 0; count *= 4) {
        const DataView bytes = data_.gather(offset, std::min(count, longest), scratch_);
        if (const std::int64_t end = endOf(bytes.text(), searched); end > 0) return bytes.sub(0, end);
        if (count >= longest) break;
        searched = bytes.size();
    }
    return {};
}

DataView StreamWindow::line(std::int64_t offset, std::int64_t longest)
{
    return upTo(offset, longest, [](std::string_view text, std::int64_t searched) {
        const std::size_t feed = text.find('\n', static_cast<std::size_t>(searched));
        return feed == std::string_view::npos ? 0 : static_cast<std::int64_t>(feed) + 1;
    });
}

DataView StreamWindow::lines(std::int64_t offset, std::int64_t longest)
{
    return upTo(offset, longest, [](std::string_view text, std::int64_t searched) -> std::int64_t {
        // An end may straddle what was searched and what is new.
        std::size_t feed = text.find('\n', static_cast<std::size_t>(std::max<std::int64_t>(searched - 2, 0)));
        if (searched == 0 && (text.starts_with('\n') || text.starts_with("\r\n"))) return text[0] == '\n' ? 1 : 2;
        for (; feed != std::string_view::npos; feed = text.find('\n', feed + 1)) {
            if (text.substr(feed + 1, 1) == "\n") return static_cast<std::int64_t>(feed) + 2;
            if (text.substr(feed + 1, 2) == "\r\n") return static_cast<std::int64_t>(feed) + 3;
        }
        return 0;
    });
}

std::optional<std::int64_t> StreamWindow::findLine(ByteRange range, const std::function<bool(std::string_view line)>& isWanted)
{
    range.upper = std::min(range.upper, data_.size());
    bool isAtLine = true;
    for (std::int64_t offset = range.lower; offset < range.upper;) {
        const std::string_view text = data_.gather(offset, std::min(longestLine, range.upper - offset), scratch_).text();
        std::size_t next = 0;
        if (!isAtLine) next = text.find('\n') + 1;  // 0 where there is none
        if (isAtLine || next > 0) {
            isAtLine = true;
            for (std::size_t feed; (feed = text.find('\n', next)) != std::string_view::npos; next = feed + 1)
                if (isWanted(text.substr(next, feed + 1 - next))) return offset + static_cast<std::int64_t>(next);
        }
        if (offset + std::ssize(text) == range.upper) break;
        if (next == 0) isAtLine = false;  // the line fills the window
        offset += next == 0 ? std::ssize(text) : static_cast<std::int64_t>(next);
    }
    return std::nullopt;
}

}  // namespace sealscope
