// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Asks the user for files that exist. How they are asked is the program's: it sets a chooser, such as a window's file
/// dialog. Main thread only.
struct OpenPanel {
    /// The chosen files, at least one; nothing when the user cancelled.
    using Choice = std::optional<std::vector<std::filesystem::path>>;
    using Chooser = std::function<Choice(const OpenPanel&)>;

    bool canChooseFiles = true;
    bool canChooseDirectories = false;
    bool allowsMultipleSelection = false;

    /// Waits for the user's answer. Without a chooser nobody can be asked, which counts as cancelled.
    Choice runModal() const;

    /// Sets who asks from now on; an empty function for nobody.
    static void setChooser(Chooser chooser);
};

}  // namespace sealscope SEALSCOPE_API
