// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// The bytes in Base64 with padding, on one line (RFC 4648 §4).
std::string base64(DataView bytes);

/// The bytes of a Base64 text with padding; nothing when it is none, line breaks and spaces included.
std::optional<Data> fromBase64(std::string_view text);

}  // namespace sealscope SEALSCOPE_API
