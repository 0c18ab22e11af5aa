// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QPalette>

#include <cstdint>

namespace sealscope::desktop {

/// Which colours the windows have.
enum class Appearance : std::uint8_t { system, light, dark };

QPalette lightPalette();
QPalette darkPalette();

/// Applies it to the whole program, now and for windows to come. The system's is what the desktop session gave at the start.
void apply(Appearance appearance);

}  // namespace sealscope::desktop
