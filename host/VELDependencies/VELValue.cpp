// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/VELValue.h"

#include <fmt/format.h>

namespace sealscope {

std::string displayText(const VELValue& value)
{
    struct TextOf {
        std::string operator()(bool flag) const { return flag ? "true" : "false"; }
        std::string operator()(std::int64_t number) const { return fmt::format("{}", number); }
        std::string operator()(double number) const { return fmt::format("{}", number); }
        std::string operator()(const std::string& text) const { return text; }
        std::string operator()(const Data& bytes) const { return hexText(bytes); }
    };
    return std::visit(TextOf{}, value);
}

}  // namespace sealscope
