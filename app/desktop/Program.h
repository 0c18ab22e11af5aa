// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace sealscope::desktop {

/// Prepares the running QApplication for the windows of this program: names, icon, texts in the user's language, and what plug-ins
/// reach the desktop session by, which are the file panel and the clipboard.
void prepareApplication();

}  // namespace sealscope::desktop
