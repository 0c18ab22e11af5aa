// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Frame.h"

#include <array>
#include <fmt/format.h>
#include <iterator>
#include <vector>

namespace sealscope {

namespace {

struct TypeRecord {
    std::string_view name;
    std::uint8_t flags = 0;  ///< that it knows
};
constexpr std::array<TypeRecord, 17> types{{{"DATA", 0x09},
                                            {"HEADERS", 0x2D},
                                            {"PRIORITY", 0},
                                            {"RST_STREAM", 0},
                                            {"SETTINGS", 0x01},
                                            {"PUSH_PROMISE", 0x0C},
                                            {"PING", 0x01},
                                            {"GOAWAY", 0},
                                            {"WINDOW_UPDATE", 0},
                                            {"CONTINUATION", 0x04},
                                            {"ALTSVC", 0},
                                            {},
                                            {"ORIGIN", 0},
                                            {},
                                            {},
                                            {},
                                            {"PRIORITY_UPDATE", 0}}};

}  // namespace

HTTP2Frame HTTP2Frame::read(StreamReader& reader, std::int64_t offset)
{
    return {.length = std::int64_t{reader.u8(offset)} << 16 | reader.u16(offset + 1),
            .type = Type{reader.u8(offset + 3)},
            .flags = reader.u8(offset + 4),
            .stream = (static_cast<std::uint32_t>(reader.u16(offset + 5)) << 16 | reader.u16(offset + 7)) & 0x7FFF'FFFF,
            .offset = offset};
}

bool HTTP2Frame::isPossible() const
{
    switch (type) {
    case Type::data:
    case Type::headers:
    case Type::continuation: return stream != 0;
    case Type::priority: return stream != 0 && length == 5;
    case Type::rstStream: return stream != 0 && length == 4;
    case Type::settings: return stream == 0 && length % 6 == 0 && (!has(acknowledged) || length == 0);
    case Type::pushPromise: return stream != 0 && length >= 4;
    case Type::ping: return stream == 0 && length == 8;
    case Type::goAway: return stream == 0 && length >= 8;
    case Type::windowUpdate: return length == 4;
    default: return true;
    }
}

bool HTTP2Frame::isLikely(std::int64_t longest) const
{
    const auto number = static_cast<std::size_t>(type);
    return number < types.size() && !types[number].name.empty() && (flags & ~types[number].flags) == 0 && length <= longest && isPossible();
}

std::string HTTP2Frame::typeName() const
{
    const auto number = static_cast<std::size_t>(type);
    if (number < types.size() && !types[number].name.empty()) return std::string(types[number].name);
    return fmt::format("Frame of type 0x{:02X}", number);
}

std::string HTTP2Frame::errorName(std::uint32_t code)
{
    static constexpr const char* names[] = {"NO_ERROR",
                                            "PROTOCOL_ERROR",
                                            "INTERNAL_ERROR",
                                            "FLOW_CONTROL_ERROR",
                                            "SETTINGS_TIMEOUT",
                                            "STREAM_CLOSED",
                                            "FRAME_SIZE_ERROR",
                                            "REFUSED_STREAM",
                                            "CANCEL",
                                            "COMPRESSION_ERROR",
                                            "CONNECT_ERROR",
                                            "ENHANCE_YOUR_CALM",
                                            "INADEQUATE_SECURITY",
                                            "HTTP_1_1_REQUIRED"};
    return code < std::size(names) ? fmt::format("{} (0x{:X})", names[code], code) : fmt::format("0x{:X}", code);
}

std::string HTTP2Frame::settingName(std::uint16_t setting)
{
    // The last three: RFC 8441 §3, RFC 9218 §2.1.
    static constexpr const char* names[] = {
        nullptr,          "HEADER_TABLE_SIZE",    "ENABLE_PUSH", "MAX_CONCURRENT_STREAMS",  "INITIAL_WINDOW_SIZE",
        "MAX_FRAME_SIZE", "MAX_HEADER_LIST_SIZE", nullptr,       "ENABLE_CONNECT_PROTOCOL", "NO_RFC7540_PRIORITIES"};
    return setting < std::size(names) && names[setting] ? names[setting] : fmt::format("0x{:X}", setting);
}

bool HTTP2Frame::beginsWithPreface(const StreamData& data)
{
    std::vector<std::uint8_t> scratch;
    return data.size() >= std::ssize(preface) && data.gather(0, std::ssize(preface), scratch).text() == preface;
}

bool HTTP2Frame::isChain(StreamReader& reader, std::int64_t offset, int count, std::int64_t longest)
{
    for (int found = 0; found < count; ++found) {
        if (offset == reader.size()) return found >= 2;
        if (offset + headerLength > reader.size()) return false;
        const HTTP2Frame frame = read(reader, offset);
        if (!frame.isLikely(longest)) return false;
        offset = frame.range().upper;
    }
    return true;
}

}  // namespace sealscope
