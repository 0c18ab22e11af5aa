// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/VELNode.h"

namespace sealscope {

std::shared_ptr<VELNodeProtocol> VELNode::nodeWithName(std::string name)
{
    return std::make_shared<VELNode>(std::move(name), std::nullopt);
}

std::shared_ptr<VELNodeProtocol> VELNode::nodeWithName(std::string name, VELValue value)
{
    return std::make_shared<VELNode>(std::move(name), std::move(value));
}

}  // namespace sealscope
