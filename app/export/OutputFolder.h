// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

namespace sealscope {

/// Sees to it that a folder is there to write to: makes it, for its owner alone, when its parent exists. Fails with the end of a
/// sentence that begins with the path.
std::expected<void, FileError> prepareOutputFolder(const std::string& path);

}  // namespace sealscope
