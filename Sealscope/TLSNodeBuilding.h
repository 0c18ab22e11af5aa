// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSNames.h"
#include "host/VELModels/VELNode.h"
#include "platform/LocalizedFormat.h"

#include <algorithm>
#include <cstdint>
#include <fmt/ranges.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What the builders of the field tree have in common.
namespace sealscope::nodes {

/// Bytes of a node: where they begin within the parent's, and how many there are.
struct Range {
    std::int64_t location = 0;
    std::int64_t length = 0;
};

inline std::string localized(const Bundle& bundle, std::string_view text)
{
    return std::string(bundle.localizedString(text, localizationTable));
}

inline std::string localized(const Bundle& bundle, std::string_view format, std::int64_t argument)
{
    return fillLocalizedFormat(bundle.localizedString(format, localizationTable), format, {static_cast<std::uint64_t>(argument)});
}

inline std::string joined(const std::vector<std::string>& texts) { return fmt::format("{}", fmt::join(texts, ", ")); }

/// Both numbers are cut to 0 ... 65535.
inline void setRange(VELNodeProtocol& node, Range range)
{
    const auto clamped = [](std::int64_t number) { return static_cast<std::uint16_t>(std::clamp<std::int64_t>(number, 0, 65535)); };
    node.setHeaderLocations(clamped(range.location));
    node.setHeaderLengths(clamped(range.length));
}

inline VELNodeProtocol& add(VELNodeProtocol& parent, std::shared_ptr<VELNodeProtocol> child, Range range)
{
    VELNodeProtocol& node = *child;
    setRange(node, range);
    parent.addChild(std::move(child));
    return node;
}

}  // namespace sealscope::nodes
