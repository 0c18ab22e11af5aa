// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

class QVBoxLayout;

namespace sealscope::desktop {

/// What stands in the window while no capture is open: how to open one, and those that were open last.
class WelcomeView final : public QWidget {
    Q_OBJECT
public:
    explicit WelcomeView(QWidget* parent = nullptr);
    void setRecentFiles(const QStringList& files);

Q_SIGNALS:
    void openWanted();
    void fileWanted(const QString& file);

private:
    QWidget* list_;
    QVBoxLayout* entries_;
};

}  // namespace sealscope::desktop
