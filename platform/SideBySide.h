// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <functional>

namespace sealscope SEALSCOPE_API {

/// Calls both, at the same time where a processor is free for it, and returns when both are done. What one of them throws is thrown on.
void sideBySide(const std::function<void()>& first, const std::function<void()>& second);

}  // namespace sealscope SEALSCOPE_API
