// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope::desktop {

/// The text of a body, or of its beginning, as it may be shown: lines, and within them escapes for what is invisible or would turn the
/// writing direction. Lines that are very long are broken. Nothing when the bytes are no text.
std::optional<std::string> bodyText(DataView bytes, const std::optional<StreamBodyHint>& hint);

/// A JSON text with each member on a line of its own; its numbers, strings and their order stay as they are. Nothing when it is none.
std::optional<std::string> indentedJSON(std::string_view text);

/// A message for people: summary, detail rows and body, the latter in hexadecimal where it is no text. Makes the body; a long one ends
/// with how much is left out.
std::string messageText(const StreamMessage& message);

/// The first bytes of a body.
Data beginningOf(const StreamBody& body, std::int64_t most);

}  // namespace sealscope::desktop
