// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"
#include "platform/Views.h"

#include <string>

namespace sealscope::cli {

/// Appends a view as lines of text: fonts become strong and faint text, controls show what they are set to. On a terminal
/// texts are broken into lines that fit it, and those of one line are cut.
void appendViewText(std::string& text, const AnyView& view, const Terminal& terminal);

}  // namespace sealscope::cli
