// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace sealscope {

/// Whether the address sanitizer's allocator is in the place of ours and the system's.
#if defined(__has_feature)
inline constexpr bool isSanitized = __has_feature(address_sanitizer);
#else
inline constexpr bool isSanitized = false;
#endif

}  // namespace sealscope
