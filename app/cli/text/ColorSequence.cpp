// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ColorSequence.h"

#include <cstdlib>
#include <fmt/format.h>
#include <string_view>

namespace sealscope::cli {

namespace {

bool showsAllShades()
{
    const char* value = std::getenv("COLORTERM");
    const std::string_view terminal = value ? value : "";
    return terminal == "truecolor" || terminal == "24bit";
}

/// The nearest of the six levels 0, 95, 135, 175, 215 and 255 that a component has among 256 colours.
int levelOf(int component) { return component < 48 ? 0 : component < 115 ? 1 : (component - 35) / 40; }

}  // namespace

std::string fillSequence(const Color& color)
{
    // Rec. 601 luma, in thousandths of a step.
    const bool isLight = 299 * color.red + 587 * color.green + 114 * color.blue > 127'500;
    const int text = isLight ? 30 : 97;
    if (showsAllShades()) return fmt::format("\x1B[{};48;2;{};{};{}m", text, color.red, color.green, color.blue);
    return fmt::format("\x1B[{};48;5;{}m", text, 16 + 36 * levelOf(color.red) + 6 * levelOf(color.green) + levelOf(color.blue));
}

}  // namespace sealscope::cli
