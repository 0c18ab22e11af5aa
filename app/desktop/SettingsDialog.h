// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QDialog>

class QTabWidget;

namespace sealscope::desktop {

/// The settings of each plug-in as it declares them, a page each. What is changed counts at once.
class SettingsDialog final : public QDialog {
    Q_OBJECT
public:
    explicit SettingsDialog(QWidget* parent = nullptr);

private:
    void reset();
    void addPages();

    QTabWidget* pages_;
};

}  // namespace sealscope::desktop
