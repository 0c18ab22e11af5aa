// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CapturedPacket.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>

namespace sealscope {

/// Why an expression cannot be compiled for a link type.
struct FilterError {
    enum class Problem : std::uint8_t { refused, noMemory, noCompiler };
    Problem problem = Problem::refused;
    std::string compilersReason = {};  ///< for refusing, in its words; or why there is none
    std::string text() const;
};

/// Packets that a filter could not be applied to, and the first reason.
struct UnfilteredPackets {
    std::int64_t count = 0;
    std::uint32_t linkType = 0;
    FilterError error;
    /// "3 packets were left out, since the filter cannot be applied to link type 147 (…)"
    std::string text() const;
};

/// A capture filter in the pcap-filter language, compiled for every link type that it meets.
class PacketFilter {
public:
    /// `expression` may be empty: everything passes. Compiles it for a first link type. `order` is that of the capturing machine, which
    /// decides how some link types' headers read.
    static std::expected<PacketFilter, FilterError> compile(const std::string& expression, std::uint32_t linkType, ByteOrder order);
    /// Loads the compiler, which a confined process cannot. Without it `compile` does.
    static void makeReady();
    /// True for a link type that the compiler can compile anything for.
    static bool isKnown(std::uint32_t linkType);
    PacketFilter(PacketFilter&&) noexcept;
    PacketFilter& operator=(PacketFilter&&) noexcept;
    ~PacketFilter();

    /// True for a packet that passes. Of a link type that the expression cannot be compiled for, none does.
    bool passes(const CapturedPacket& packet, ByteOrder order);
    /// Packets that could not be filtered since they were taken the last time; nothing when there are none.
    std::optional<UnfilteredPackets> takeUnfiltered();

private:
    struct Implementation;
    explicit PacketFilter(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
