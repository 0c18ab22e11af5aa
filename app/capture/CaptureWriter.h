// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CapturedPacket.h"
#include "platform/SecretMemory.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace sealscope {

class Capture;

/// What is to be different in a copy of a capture.
struct CaptureChanges {
    SecretText addedSecrets;    ///< key log text that goes in front of every packet; empty for none
    bool dropsSecrets = false;  ///< every Decryption Secrets Block of the capture is left out, of whatever kind
};

/// Writes a capture in the pcapng format (draft-ietf-opsawg-pcapng) block by block, or in the classic one (draft-ietf-opsawg-pcap)
/// packet by packet, in this machine's byte order. Used by one thread.
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

    /// Begins a classic file, whose packets are all of one interface; `decimals` are 6 or 9.
    bool classicHeader(std::uint32_t linkType, std::uint32_t snapLength, std::uint8_t decimals);
    /// Writes a packet of one, with those decimals; its frame goes on in `rest`.
    bool classicPacket(const CaptureTime& time, std::int64_t originalLength, DataView frame, DataView rest = {});

    /// Writes all files of a capture that was read with random access, one after the other: of pcapng files every block as it
    /// stands, of pcap files the packets. Where a file is damaged, or became shorter meanwhile, its copy ends. False when the sink
    /// wanted no more.
    bool copy(const Capture& capture, const CaptureChanges& changes);

private:
    bool copyPcapng(const Capture& capture, std::size_t file, const CaptureChanges& changes);
    bool copyPcap(const Capture& capture, std::size_t file);
    bool addPendingSecrets();

    void begin(std::uint32_t type);
    void put(const CapturedPacket& packet, std::uint32_t interface);
    template <typename Integer> void put(Integer value);
    void putPadded(DataView bytes);
    bool end();

    Sink sink_;
    ByteOrder order_;
    SecretBytes block_;                ///< may be one of secrets
    std::string_view pendingSecrets_;  ///< wait for the first section
};

}  // namespace sealscope
