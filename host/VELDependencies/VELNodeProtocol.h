// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELValue.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace sealscope SEALSCOPE_API {

class VELNodeProtocol;
/// Takes a child and says whether to go on.
using VELNodeVisitor = std::function<bool(const std::shared_ptr<VELNodeProtocol>&)>;

/// One field of a dissected packet. Its byte range counts from the start of the parent's range; the root's range
/// counts from the start of the payload. What was never set is absent.
class VELNodeProtocol {
public:
    virtual ~VELNodeProtocol() = default;

    virtual const std::string& name() const = 0;
    virtual const std::optional<VELValue>& value() const = 0;

    virtual std::optional<std::uint16_t> headerLocations() const = 0;
    virtual void setHeaderLocations(std::uint16_t location) = 0;
    virtual std::optional<std::uint16_t> headerLengths() const = 0;
    virtual void setHeaderLengths(std::uint16_t length) = 0;

    /// Appends a child; children are shown in the order added.
    virtual void addChild(std::shared_ptr<VELNodeProtocol> child) = 0;
    virtual std::span<const std::shared_ptr<VELNodeProtocol>> children() const = 0;
    virtual bool hasChildren() const { return !children().empty(); }
    /// Hands the children over one by one, in order, until `visit` gives false; says whether it never did. A child that is made for
    /// this call goes when `visit` lets go of it: whoever prints a tree holds one path of it instead of all.
    virtual bool forEachChild(const VELNodeVisitor& visit) const
    {
        for (const auto& child : children())
            if (!visit(child)) return false;
        return true;
    }
};

using VELNodeList = std::vector<std::shared_ptr<VELNodeProtocol>>;

}  // namespace sealscope SEALSCOPE_API
