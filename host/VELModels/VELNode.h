// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNodeProtocol.h"

namespace sealscope SEALSCOPE_API {

/// The host's node class. Not thread-safe; a tree belongs to whoever asked for it.
class VELNode final : public VELNodeProtocol {
public:
    /// A node with a name only: a heading or a note.
    static std::shared_ptr<VELNodeProtocol> nodeWithName(std::string name);
    static std::shared_ptr<VELNodeProtocol> nodeWithName(std::string name, VELValue value);

    VELNode(std::string name, std::optional<VELValue> value) : name_(std::move(name)), value_(std::move(value)) {}

    const std::string& name() const override { return name_; }
    const std::optional<VELValue>& value() const override { return value_; }
    std::optional<std::uint16_t> headerLocations() const override { return location_; }
    void setHeaderLocations(std::uint16_t location) override { location_ = location; }
    std::optional<std::uint16_t> headerLengths() const override { return length_; }
    void setHeaderLengths(std::uint16_t length) override { length_ = length; }
    void addChild(std::shared_ptr<VELNodeProtocol> child) override { children_.push_back(std::move(child)); }
    std::span<const std::shared_ptr<VELNodeProtocol>> children() const override { return children_; }

private:
    std::string name_;
    std::optional<VELValue> value_;
    std::optional<std::uint16_t> location_;
    std::optional<std::uint16_t> length_;
    VELNodeList children_;
};

}  // namespace sealscope SEALSCOPE_API
