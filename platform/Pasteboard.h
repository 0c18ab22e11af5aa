// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <functional>
#include <mutex>
#include <string>

namespace sealscope SEALSCOPE_API {

/// Where copied text goes: into the desktop session's clipboard when there is one, and in any case into this object.
/// Any thread may call it.
class Pasteboard {
public:
    static Pasteboard& general();

    void clearContents();
    /// False when there is a desktop session and its clipboard did not take the text.
    bool setString(std::string text);
    /// What was put here last.
    std::string string() const;

    /// Puts text into the session's clipboard, an empty one to clear it; false when that failed.
    using Writer = std::function<bool(const std::string&)>;
    /// Sets who writes into the session's clipboard from now on, for a program that speaks with the desktop itself.
    void setWriter(Writer writer);

    Pasteboard(const Pasteboard&) = delete;
    Pasteboard& operator=(const Pasteboard&) = delete;

private:
    Pasteboard();
    mutable std::mutex mutex_;
    std::string text_;
    Writer writer_;
};

}  // namespace sealscope SEALSCOPE_API
