// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstddef>
#include <string>

namespace sealscope::cli {

struct HexDumpLayout {
    std::size_t indent = 0;       ///< blanks before the offset of each line
    std::size_t bytesIndent = 2;  ///< blanks between the offset and the bytes
    bool hasColors = false;
};

/// Appends bytes, sixteen a line, in hexadecimal and as characters, behind the decimal offset of the line's first.
void appendHexDump(std::string& text, DataView bytes, std::int64_t firstOffset, const HexDumpLayout& layout);

}  // namespace sealscope::cli
