// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Color.h"

namespace sealscope SEALSCOPE_API {

/// A new random opaque colour: any hue, strong and light enough to tell rows apart under dark text.
Color randomColor();

}  // namespace sealscope SEALSCOPE_API
