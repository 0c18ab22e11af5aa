// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CapturedPacket.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <string>

namespace sealscope {

/// A capture filter in the pcap-filter language, compiled for every link type that it meets.
class PacketFilter {
public:
    /// `expression` may be empty: everything passes. Compiles it for a first link type; fails with the compiler's reason.
    static std::expected<PacketFilter, std::string> compile(const std::string& expression, std::uint32_t linkType, bool isSwapped);
    /// True for a link type that the compiler can compile anything for.
    static bool isKnown(std::uint32_t linkType);
    PacketFilter(PacketFilter&&) noexcept;
    PacketFilter& operator=(PacketFilter&&) noexcept;
    ~PacketFilter();

    /// True for a packet that passes. `isSwapped` tells that the capturing machine's byte order is not this one's, which
    /// decides how some link types' headers read. Of a link type that the expression cannot be compiled for, none passes.
    bool passes(const CapturedPacket& packet, bool isSwapped);
    /// Packets that could not be filtered since the failure was taken the last time.
    std::int64_t failureCount() const;
    /// How many they are, of which link type, and why.
    std::string takeFailure();

private:
    struct Implementation;
    explicit PacketFilter(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
