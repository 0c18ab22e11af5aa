// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/ShownText.h"

#include "app/texts/DisplayText.h"

#include <string>

namespace sealscope::desktop {

QString shownText(std::string_view text)
{
    constexpr int widest = 2'000;
    std::string safe;
    appendDisplaySafe(safe, text, widest);
    return QString::fromStdString(safe);
}

}  // namespace sealscope::desktop
