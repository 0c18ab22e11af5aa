// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Views.h"

#include <string>

namespace sealscope {

/// The plug-in's own block of its settings page: that TLS needs no ports, which key log is read, and where the managed one
/// is. It has no state of its own. Main thread only.
struct TLSKeylogSection {
    TLSKeylogSection();

    /// The path of the user's key log in the standard user defaults; empty where none is set.
    Binding<std::string> keylogPath;

    /// The section as a view. Its texts are looked up in the application's own table; they are none of the plug-in's.
    AnyView body() const;
};

}  // namespace sealscope
