// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNodeProtocol.h"

#include <string>

namespace sealscope {

/// A node tree as indented text, a node a line: "Length: 512 @3+2" is a node with the value 512 whose range begins 3 bytes
/// into its parent's and has 2 bytes. A node without a value, or without a range, lacks that part.
std::string treeText(const VELNodeList& nodes, int depth = 0);

}  // namespace sealscope
