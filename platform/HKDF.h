// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/HMAC.h"

namespace sealscope SEALSCOPE_API {

/// HKDF-Expand (RFC 5869 §2.3) with a pseudo-random key of any length, which keys the HMAC. Fills `output`; false for more
/// than 255 times the hash's size.
[[nodiscard]] bool hkdfExpand(HMAC& pseudoRandomKey, DataView info, std::span<std::uint8_t> output);

}  // namespace sealscope SEALSCOPE_API
