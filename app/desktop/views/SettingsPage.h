// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Views.h"

#include <QWidget>

namespace sealscope::desktop {

/// A declarative view as widgets: what it is bound to is shown, changed, and followed where others change it.
class SettingsPage final : public QWidget {
    Q_OBJECT
public:
    explicit SettingsPage(AnyView view, QWidget* parent = nullptr);

private:
    ObservationToken shown_;
};

}  // namespace sealscope::desktop
