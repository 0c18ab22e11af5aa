// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace sealscope {

/// Why libpcap cannot be loaded, in the dynamic linker's words.
struct PcapLibraryError {
    std::string linkersReason;
    std::string text() const;
};

}  // namespace sealscope
