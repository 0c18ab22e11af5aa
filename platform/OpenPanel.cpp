// SPDX-License-Identifier: Apache-2.0
#include "platform/OpenPanel.h"

namespace sealscope {

namespace {

OpenPanel::Chooser& currentChooser()
{
    static OpenPanel::Chooser chooser;
    return chooser;
}

}  // namespace

OpenPanel::Choice OpenPanel::runModal() const
{
    if (!currentChooser()) return std::nullopt;
    Choice choice = currentChooser()(*this);
    if (!choice || choice->empty()) return std::nullopt;
    if (!allowsMultipleSelection) choice->resize(1);
    return choice;
}

void OpenPanel::setChooser(Chooser chooser) { currentChooser() = std::move(chooser); }

}  // namespace sealscope
