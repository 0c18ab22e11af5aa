// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/SettingsPage.h"

#include "app/desktop/views/ViewBuilder.h"

#include <QVBoxLayout>

namespace sealscope::desktop {

SettingsPage::SettingsPage(AnyView view, QWidget* parent) : QWidget(parent), shown_(view.show())
{
    auto* const layout = new QVBoxLayout(this);
    if (QWidget* const content = makeWidget(view)) layout->addWidget(content);
    layout->addStretch(1);
}

}  // namespace sealscope::desktop
