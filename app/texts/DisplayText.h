// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace sealscope {

/// Appends a text so that a terminal shows it and obeys nothing in it: control characters, invisible ones, those that
/// turn the writing direction and unassigned ones become visible escapes such as `\n`, `\x1B` and `\u{202E}`; bytes that are
/// no UTF-8 become U+FFFD. Returns how many columns the appended text takes.
int appendDisplaySafe(std::string& output, std::string_view text);
std::string displaySafe(std::string_view text);

/// Appends a text as `appendDisplaySafe` does, at most `columns` wide; what was cut off is told by "…". Returns the width.
int appendDisplaySafe(std::string& output, std::string_view text, int columns);

}  // namespace sealscope
