// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/streams/ConnectionIndex.h"
#include "app/streams/ReassembledStream.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// A capture of TCP segments that are written down one by one, without files and packets around them: what tests, fuzz target
/// and benchmarks of the streams give them.
class ScriptedCapture {
public:
    /// The next packet; its number, from 1. `cutTo` is how many payload bytes the capture holds, when not all.
    std::int64_t add(TCPPacket packet, DataView payload, double time, std::int64_t cutTo = -1)
    {
        packet.payload = cutTo < 0 ? payload : payload.sub(0, cutTo);
        packet.payloadLength = payload.size();
        packet.payloadAddress = capture_->keep(packet.payload);
        index_->add(packet, ++packets_, time);
        return packets_;
    }
    /// The next packet takes its number from here.
    void skipPackets(std::int64_t count) { packets_ += count; }

    const ConnectionIndex& index() const { return *index_; }
    const Capture& capture() const { return *capture_; }
    TCPStream stream(std::int64_t number = 0) const { return reassembledStream(capture_, index_, number); }
    StreamMeasures measures(std::int64_t number = 0) const { return measureStream(*capture_, (*index_)[number]); }

private:
    class Memory final : public Capture {
    public:
        bool next(CapturedPacket&) override { return false; }
        const std::vector<std::string>& files() const override { return files_; }
        const std::vector<CaptureError>& errors() const override { return errors_; }
        DataView bytes(CaptureAddress address, std::int64_t count) const override { return DataView(bytes_).sub(address, count); }
        CaptureAddress keep(DataView bytes) override
        {
            const auto address = static_cast<CaptureAddress>(bytes_.size());
            bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
            return address;
        }
        SecretText takeEmbeddedKeyLog() override { return {}; }
        std::int64_t bytesRead() const override { return static_cast<std::int64_t>(bytes_.size()); }
        std::int64_t bytesTotal() const override { return bytesRead(); }

    private:
        std::vector<std::uint8_t> bytes_;
        std::vector<std::string> files_;
        std::vector<CaptureError> errors_;
    };

    std::shared_ptr<Memory> capture_ = std::make_shared<Memory>();
    std::shared_ptr<ConnectionIndex> index_ = std::make_shared<ConnectionIndex>();
    std::int64_t packets_ = 0;
};

/// An endpoint of the documentation networks (RFC 5737).
inline TCPStreamKey::Endpoint testEndpoint(std::uint8_t host, std::uint16_t port) { return {.address = {192, 0, 2, host}, .port = port}; }

}  // namespace sealscope
