// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// A universally unique identifier (RFC 9562).
struct UUID {
    std::array<std::uint8_t, 16> bytes{};
    /// A fresh random one (version 4). Unique within the process; not meant to be unguessable.
    static UUID random();
    /// The identifier of such a text, in either case of letters; nothing for any other.
    static std::optional<UUID> fromText(std::string_view text);
    /// "8-4-4-4-12" in upper-case hexadecimal.
    std::string text() const;
    auto operator<=>(const UUID&) const = default;
};

}  // namespace sealscope SEALSCOPE_API
