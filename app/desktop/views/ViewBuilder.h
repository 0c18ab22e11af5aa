// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Views.h"

class QWidget;

namespace sealscope::desktop {

/// Makes the widget of a declarative view; null for an empty one. Its bindings are followed as long as the widget lives.
QWidget* makeWidget(const AnyView& view);

}  // namespace sealscope::desktop
