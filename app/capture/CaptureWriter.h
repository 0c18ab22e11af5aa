// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CapturedPacket.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

class Capture;

/// What is to be different in a copy of a capture.
struct CaptureChanges {
    std::string addedSecrets;   ///< key log text that goes in front of every packet; empty for none
    bool dropsSecrets = false;  ///< every Decryption Secrets Block of the capture is left out, of whatever kind
};

/// Writes a capture in the pcapng format (draft-ietf-opsawg-pcapng), block by block, in this machine's byte order. Used by one
/// thread.
class CaptureWriter {
public:
    /// Takes the bytes in order; false when it wants no more of them, which ends a copy.
    using Sink = std::function<bool(DataView)>;
    explicit CaptureWriter(Sink sink) : sink_(std::move(sink)) {}

    /// Begins a section; its interfaces count from 0.
    bool section();
    /// Adds an interface. `snapLength` is 0 for none, `decimals` the digits of a second that times have.
    bool interface(std::uint32_t linkType, std::uint32_t snapLength = 0, std::uint8_t decimals = 9);
    bool secrets(std::string_view keyLog);
    /// Writes a packet of an interface, whose decimals its time must have.
    bool packet(const CapturedPacket& packet, std::uint32_t interface = 0);

    /// Writes all files of a capture that was read with random access, one after the other: of pcapng files every block as it
    /// stands, of pcap files the packets. Where a file is damaged its copy ends. False when the sink wanted no more.
    bool copy(const Capture& capture, const CaptureChanges& changes);

    std::int64_t packetsWritten() const { return packetsWritten_; }
    std::int64_t secretsDropped() const { return secretsDropped_; }  ///< blocks

private:
    bool copyPcapng(DataView file, const CaptureChanges& changes);
    bool copyPcap(DataView file);
    bool addPendingSecrets();

    void begin(std::uint32_t type);
    template <typename Integer> void put(Integer value);
    void putPadded(DataView bytes);
    bool end();

    Sink sink_;
    ByteOrder order_;
    std::vector<std::uint8_t> block_;
    std::string pendingSecrets_;  ///< wait for the first section
    std::int64_t packetsWritten_ = 0;
    std::int64_t secretsDropped_ = 0;
};

}  // namespace sealscope
