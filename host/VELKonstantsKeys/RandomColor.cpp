// SPDX-License-Identifier: Apache-2.0
#include "host/VELKonstantsKeys/RandomColor.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace sealscope {

Color randomColor()
{
    std::random_device device;
    std::uniform_real_distribution<double> hues(0, 6), saturations(0.35, 0.7), brightnesses(0.8, 1);
    const double hue = hues(device), saturation = saturations(device), brightness = brightnesses(device);
    // A component falls off with the hue's distance from its own, in sixths of the colour circle.
    const auto component = [&](double offset) {
        const double sixth = std::fmod(offset + hue, 6);
        const double share = std::clamp(std::min(sixth, 4 - sixth), 0.0, 1.0);
        return static_cast<std::uint8_t>(std::lround(255 * brightness * (1 - saturation * share)));
    };
    return {component(5), component(3), component(1)};
}

}  // namespace sealscope
