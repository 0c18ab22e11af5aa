// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureError.h"

#include <fmt/format.h>
#include <string_view>
#include <type_traits>
#include <utility>

namespace sealscope {

std::string InterfaceError::text() const
{
    switch (problem) {
    case Problem::refused: return words;
    case Problem::noPermission:
        return "no permission to capture on it; run as root, or give the program the capabilities cap_net_raw and cap_net_admin";
    case Problem::doesNotExist: return "there is no such network interface";
    }
    std::unreachable();
}

std::string NotWritten::text() const { return fmt::format("could not be written to its end: {}", error.text()); }

std::string CaptureError::reason(const SentenceReader& reader) const
{
    return std::visit(
        [&](const auto& error) {
            if constexpr (std::is_same_v<decltype(error), const ReadError&>)
                return error.text(reader);
            else
                return error.text();
        },
        cause);
}

std::string CaptureError::text(const SentenceReader& reader) const
{
    const std::string_view name = file == "-" ? reader.word("standard input") : std::string_view(file);
    std::string text = file.empty() ? reason(reader) : reader.say("{}: {}", name, reason(reader));
    if (couldNotOpen || packetsBefore < 0) return text;
    text += reader.word("; ");
    if (packetsBefore == 0)
        text += reader.word("no packet before it was read");
    else
        text += reader.sayOf(packetsBefore, "{} packet before it was read", "{} packets before it were read", packetsBefore);
    if (passedOver == 1) text += reader.word(", and it was passed over");
    if (passedOver > 1) text += reader.say(", and it and {} more were passed over", passedOver - 1);
    return text;
}

}  // namespace sealscope
