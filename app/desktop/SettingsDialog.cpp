// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/SettingsDialog.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/views/SettingsPage.h"
#include "app/settings/PlugInSettings.h"
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "platform/UserDefaults.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QTabWidget>
#include <QVBoxLayout>

namespace sealscope::desktop {

SettingsDialog::SettingsDialog(QWidget* parent) : QDialog(parent), pages_(new QTabWidget)
{
    setWindowTitle(tr("Settings"));
    auto* const layout = new QVBoxLayout(this);
    if (const auto problem = UserDefaults::standard().lastProblem()) {
        auto* const label = new QLabel(QString::fromStdString(problem->text()));
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
        layout->addWidget(label);
    }
    pages_->setDocumentMode(true);
    layout->addWidget(pages_);
    addPages();
    auto* const buttons = new QDialogButtonBox(QDialogButtonBox::Close | QDialogButtonBox::RestoreDefaults);
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(buttons->button(QDialogButtonBox::RestoreDefaults), &QPushButton::clicked, this, &SettingsDialog::reset);
    resize(620, 520);
}

void SettingsDialog::addPages()
{
    for (const auto& [title, preferences] : plugInSettings()) {
        const auto size = std::make_shared<Size>(Size{560, 400});
        auto* const area = new QScrollArea;
        area->setWidgetResizable(true);
        area->setFrameShape(QFrame::NoFrame);
        area->setWidget(
            new SettingsPage(preferences->settingsView({.get = [size] { return *size; }, .set = [size](Size other) { *size = other; }, .observe = {}})));
        pages_->addTab(area, shownText(title));
    }
}

void SettingsDialog::reset() { resetSettings(); }

}  // namespace sealscope::desktop
