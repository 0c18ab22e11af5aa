// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Bundle.h"

namespace sealscope {

/// The plug-in's own bundle; an empty one where a program links the plug-in's code. Hidden, whatever a build exports:
/// another module's function of this name finds another bundle.
[[gnu::visibility("hidden")]] inline const Bundle& plugInBundle()
{
    static constexpr char inThisModule = 0;
    static const Bundle& bundle = Bundle::containing(&inThisModule);
    return bundle;
}

}  // namespace sealscope
