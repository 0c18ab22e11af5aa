// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QString>

#include <string_view>

namespace sealscope::desktop {

/// A foreign text as it may be shown in one line: what would be obeyed, or not be seen, stands as a visible escape, and what is
/// too long to be looked at is cut. Only for widgets that take plain text.
QString shownText(std::string_view text);

}  // namespace sealscope::desktop
