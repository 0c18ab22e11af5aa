// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNodeProtocol.h"

namespace sealscope SEALSCOPE_API {

/// The host's node class. Not thread-safe; a tree belongs to whoever asked for it. Its children are kept, or made whenever
/// somebody goes through them: a payload of some kilobytes may have a tree of gigabytes.
class VELNode final : public VELNodeProtocol {
public:
    /// A node with a name only: a heading or a note.
    static std::shared_ptr<VELNodeProtocol> nodeWithName(std::string name);
    static std::shared_ptr<VELNodeProtocol> nodeWithName(std::string name, VELValue value);

    /// Hands children over until it is told not to go on; at least one, and the same each time.
    using ChildMaker = std::function<void(const VELNodeVisitor&)>;
    /// A node with a name only, whose children are made.
    static std::shared_ptr<VELNodeProtocol> nodeWithName(std::string name, ChildMaker children);

    VELNode(std::string name, std::optional<VELValue> value) : name_(std::move(name)), value_(std::move(value)) {}

    const std::string& name() const override { return name_; }
    const std::optional<VELValue>& value() const override { return value_; }
    std::optional<std::uint16_t> headerLocations() const override { return location_; }
    void setHeaderLocations(std::uint16_t location) override { location_ = location; }
    std::optional<std::uint16_t> headerLengths() const override { return length_; }
    void setHeaderLengths(std::uint16_t length) override { length_ = length; }
    void addChild(std::shared_ptr<VELNodeProtocol> child) override
    {
        keepChildren();
        children_.push_back(std::move(child));
    }
    /// Makes the children that are not kept yet, and keeps them.
    std::span<const std::shared_ptr<VELNodeProtocol>> children() const override
    {
        keepChildren();
        return children_;
    }
    bool hasChildren() const override { return make_ || !children_.empty(); }
    bool forEachChild(const VELNodeVisitor& visit) const override;

private:
    void keepChildren() const;

    std::string name_;
    std::optional<VELValue> value_;
    std::optional<std::uint16_t> location_;
    std::optional<std::uint16_t> length_;
    mutable ChildMaker make_;  ///< of children that are not kept
    mutable VELNodeList children_;
};

}  // namespace sealscope SEALSCOPE_API
