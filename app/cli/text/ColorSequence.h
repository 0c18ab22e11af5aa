// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Color.h"

#include <string>

namespace sealscope::cli {

/// The sequence that fills what follows with a colour, under black or white text, whichever is easier to read on it. In all
/// its shades where the terminal says that it can show them (`COLORTERM`), else in the nearest of 256.
std::string fillSequence(const Color& color);

}  // namespace sealscope::cli
