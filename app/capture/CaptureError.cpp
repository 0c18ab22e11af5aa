// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureError.h"

#include <string_view>

namespace sealscope {

std::string CaptureError::text(const SentenceReader& reader) const
{
    const std::string_view name = file == "-" ? reader.word("standard input") : std::string_view(file);
    std::string text = file.empty() ? reason : reader.say("{}: {}", name, reason);
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
