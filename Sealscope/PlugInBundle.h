// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Bundle.h"

namespace sealscope {

/// The plug-in's own bundle; an empty one where a program links the plug-in's code.
inline const Bundle& plugInBundle()
{
    static constexpr char inThisModule = 0;
    static const Bundle& bundle = Bundle::containing(&inThisModule);
    return bundle;
}

}  // namespace sealscope
