// SPDX-License-Identifier: Apache-2.0
#include "tests/support/TreeText.h"

#include <fmt/format.h>

namespace sealscope {

std::string treeText(const VELNodeList& nodes, int depth)
{
    std::string text;
    for (const auto& node : nodes) {
        text += fmt::format("{:{}}{}", "", 2 * depth, node->name());
        if (node->value()) text += ": " + displayText(*node->value());
        if (node->headerLocations()) text += fmt::format(" @{}", *node->headerLocations());
        if (node->headerLengths()) text += fmt::format("+{}", *node->headerLengths());
        text += '\n';
        node->forEachChild([&](const auto& child) {
            text += treeText({child}, depth + 1);
            return true;
        });
    }
    return text;
}

}  // namespace sealscope
