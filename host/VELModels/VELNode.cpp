// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/VELNode.h"

#include <utility>

namespace sealscope {

std::shared_ptr<VELNodeProtocol> VELNode::nodeWithName(std::string name)
{
    return std::make_shared<VELNode>(std::move(name), std::nullopt);
}

std::shared_ptr<VELNodeProtocol> VELNode::nodeWithName(std::string name, VELValue value)
{
    return std::make_shared<VELNode>(std::move(name), std::move(value));
}

std::shared_ptr<VELNodeProtocol> VELNode::nodeWithName(std::string name, ChildMaker children)
{
    auto node = std::make_shared<VELNode>(std::move(name), std::nullopt);
    node->make_ = std::move(children);
    return node;
}

bool VELNode::forEachChild(const VELNodeVisitor& visit) const
{
    if (!make_) return VELNodeProtocol::forEachChild(visit);
    bool goesOn = true;
    make_([&](const std::shared_ptr<VELNodeProtocol>& child) { return goesOn = visit(child); });
    return goesOn;
}

void VELNode::keepChildren() const
{
    if (!make_) return;
    std::exchange(make_, nullptr)([&](const std::shared_ptr<VELNodeProtocol>& child) {
        children_.push_back(child);
        return true;
    });
}

}  // namespace sealscope
