// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace sealscope {

/// The name of a cipher suite in the IANA registry of TLS parameters; nothing for suites that hardly anybody negotiated. For
/// texts that say what stands in the way: `cipherSuiteName` is what trees and messages show.
std::optional<std::string_view> registeredCipherSuiteName(std::uint16_t codePoint);

}  // namespace sealscope
