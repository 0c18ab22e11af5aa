// SPDX-License-Identifier: Apache-2.0
#include "app/session/Session.h"

#include "app/session/InOrder.h"
#include "app/streams/ConnectionIndex.h"
#include "app/streams/ReassembledStream.h"

#include <algorithm>
#include <array>
#include <limits>
#include <mutex>
#include <utility>

namespace sealscope {

namespace {

/// Packets between two calls of `SessionOptions::progress`; some milliseconds.
constexpr std::int64_t packetsPerProgress = 1 << 14;

}  // namespace

class Session::Implementation {
public:
    explicit Implementation(std::shared_ptr<Capture> capture) : capture_(std::move(capture)) {}

    void index(const SessionOptions& options)
    {
        const auto connections = std::make_shared<ConnectionIndex>();
        // Who admits segments sees their packets, one by one.
        SegmentScan scan(*capture_, capture_.get(), options.admits ? SegmentScan::Processors::one : SegmentScan::Processors::all);
        std::int64_t nextProgress = packetsPerProgress;
        const auto worker = [] { return [](const SegmentBatch&) {}; };
        scan.run(worker, [&](const auto&, const SegmentBatch& batch) {
            for (const CapturedSegment& segment : batch)
                if (!options.admits || options.admits(scan.packet(), segment.tcp))
                    connections->add(segment.tcp, batch.packetsBefore() + segment.packetNumber, segment.time.value());
            if (scan.packetCount() < nextProgress) return true;
            nextProgress = scan.packetCount() + packetsPerProgress;
            if (options.progress) options.progress(scan.bytesRead(), capture_->bytesTotal());
            return !options.stop.stop_requested();
        });
        packetCount = scan.packetCount();
        notes = scan.notes();
        errors = capture_->errors();
        settleClients(capture_, connections);
        connections_ = connections;
        embeddedKeyLog_ = capture_->takeEmbeddedKeyLog();
        privateKeys_ = options.privateKeys;
        constexpr std::int64_t ofEveryCapture = 500, bytesForOneMore = 16'384;
        mostKeyExchanges_ = options.mostKeyExchanges.value_or(ofEveryCapture + capture_->bytesOfFiles() / bytesForOneMore);
        plugInOptions_ = options.plugIns;
        prepare(options.secrets ? options.secrets : sources(options.keyLogs));
    }

    std::unique_ptr<Implementation> withKeyLogs(const std::vector<std::string>& keyLogs) const
    {
        return asPart(sources(keyLogs), packetsBefore);
    }

    std::shared_ptr<const KeyLogSources> sources(const std::vector<std::string>& keyLogs) const
    {
        return std::make_shared<const KeyLogSources>(embeddedKeyLog_, keyLogs, privateKeys_, mostKeyExchanges_);
    }

    std::unique_ptr<Implementation> asPart(std::shared_ptr<const KeyLogSources> secrets, std::int64_t before) const
    {
        auto other = std::make_unique<Implementation>(capture_);
        other->packetCount = packetCount;
        other->packetsBefore = before;
        other->notes = notes;
        other->errors = errors;
        other->connections_ = connections_;
        other->embeddedKeyLog_ = embeddedKeyLog_;
        other->privateKeys_ = privateKeys_;
        other->mostKeyExchanges_ = mostKeyExchanges_;
        other->plugInOptions_ = plugInOptions_;
        other->prepare(std::move(secrets));
        return other;
    }

    const SecretText& embeddedKeyLog() const { return embeddedKeyLog_; }

    const Capture& capture() const { return *capture_; }
    const ConnectionIndex& connections() const { return *connections_; }
    const SessionPlugIns& plugIns() const { return *plugIns_; }

    /// Leaves the stream's measures behind, which most callers ask for next.
    TCPStream stream(std::int64_t number) const
    {
        const auto index = static_cast<std::size_t>(number);
        bool isMeasured = false;
        {
            const auto lock = lockFor(index);
            isMeasured = measured_[index].isKnown;
        }
        StreamMeasures measures;
        TCPStream stream = reassembledStream(capture_, connections_, number, isMeasured ? nullptr : &measures, packetsBefore);
        if (!isMeasured) {
            const auto lock = lockFor(index);
            measured_[index] = {measures, true};
        }
        return stream;
    }

    /// Measured when it is first asked for, then kept: a list of streams asks again and again.
    StreamMeasures measures(std::int64_t number) const
    {
        const auto index = static_cast<std::size_t>(number);
        const auto lock = lockFor(index);
        Measured& measured = measured_[index];
        if (!measured.isKnown) measured = {measureStream(*capture_, (*connections_)[number]), true};
        return measured.measures;
    }

    std::int64_t packetCount = 0;
    std::int64_t packetsBefore = 0;
    DecoderNotes notes;
    std::vector<CaptureError> errors;

private:
    struct Measured {
        StreamMeasures measures;
        bool isKnown = false;
    };

    void prepare(std::shared_ptr<const KeyLogSources> secrets)
    {
        measured_ = std::make_unique<Measured[]>(static_cast<std::size_t>(connections_->size()));
        plugIns_ = std::make_unique<const SessionPlugIns>(std::move(secrets), plugInOptions_);
    }

    std::unique_lock<std::mutex> lockFor(std::size_t index) const { return std::unique_lock(locks_[index % locks_.size()]); }

    std::shared_ptr<Capture> capture_;
    std::shared_ptr<const ConnectionIndex> connections_;
    SecretText embeddedKeyLog_;
    std::vector<PrivateKey> privateKeys_;
    std::int64_t mostKeyExchanges_ = KeyLogSources::fewKeyExchanges;
    PlugInOptions plugInOptions_;
    std::unique_ptr<Measured[]> measured_;
    std::unique_ptr<const SessionPlugIns> plugIns_;
    mutable std::array<std::mutex, 64> locks_;  ///< each guards the entries of `measured_` whose number it divides
};

Session::Session(std::unique_ptr<Implementation> implementation) : implementation_(std::move(implementation)) {}
Session::~Session() = default;

std::expected<std::unique_ptr<Session>, CaptureError> Session::open(SessionOptions options)
{
    auto capture = Capture::open(options.files, {.randomAccess = true,
                                                 .keepsEveryBlock = options.keepsEveryBlock,
                                                 .filter = options.filter,
                                                 .maximumPackets = options.maximumPackets,
                                                 .stop = options.stop});
    if (!capture) return std::unexpected(std::move(capture.error()));
    return open(std::shared_ptr<Capture>(std::move(*capture)), options);
}

std::unique_ptr<Session> Session::open(std::shared_ptr<Capture> capture, const SessionOptions& options)
{
    auto implementation = std::make_unique<Implementation>(std::move(capture));
    implementation->index(options);
    return std::unique_ptr<Session>(new Session(std::move(implementation)));
}

std::unique_ptr<Session> Session::withKeyLogs(std::vector<std::string> keyLogs) const
{
    return std::unique_ptr<Session>(new Session(implementation_->withKeyLogs(keyLogs)));
}

std::unique_ptr<Session> Session::asPart(std::shared_ptr<const KeyLogSources> secrets, std::int64_t packetsBefore) const
{
    return std::unique_ptr<Session>(new Session(implementation_->asPart(std::move(secrets), packetsBefore)));
}

const SecretText& Session::embeddedKeyLog() const { return implementation_->embeddedKeyLog(); }
std::int64_t Session::packetCount() const { return implementation_->packetCount; }
std::int64_t Session::streamCount() const { return implementation_->connections().size(); }
std::int64_t Session::packets(std::int64_t stream) const { return implementation_->connections()[stream].packets(); }

std::int64_t Session::weight(std::int64_t stream) const
{
    // Messages of some bytes take dozens of times their room, and in a packet there may be thousands.
    constexpr std::int64_t ofAByte = 8;
    const Connection& connection = implementation_->connections()[stream];
    std::int64_t bytes = 0;
    for (const ConnectionSide& side : connection.sides) bytes += side.next - side.lowest;
    return std::max(connection.packets() * usualPayload, bytes * ofAByte);
}

const std::array<TCPStreamKey::Endpoint, 2>& Session::endpoints(std::int64_t stream) const
{
    return implementation_->connections()[stream].endpoints;
}

std::int64_t Session::firstPacket(std::int64_t stream) const
{
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    for (const ConnectionSide& side : implementation_->connections()[stream].sides)
        if (side.segments.size() > 0) first = std::min(first, SegmentTable(side.segments)[0].packetNumber());
    return first + implementation_->packetsBefore;
}

double Session::startTime(std::int64_t stream) const { return implementation_->connections()[stream].startTime; }

StreamSummary Session::summary(std::int64_t stream) const
{
    const Connection& connection = implementation_->connections()[stream];
    const StreamMeasures measures = implementation_->measures(stream);
    return {
        .number = stream,
        .client = connection.endpoints[connection.client],
        .server = connection.endpoints[1 - connection.client],
        .clientBytes = measures.clientBytes,
        .serverBytes = measures.serverBytes,
        .missingBytes = measures.missingBytes,
        .startTime = connection.startTime,
        .endTime = connection.endTime,
        .packets = connection.packets(),
        .contradictingBytes = measures.contradictingBytes,
        .restarts = measures.restarts,
        .hasSYN = connection.sides[0].hasSYN || connection.sides[1].hasSYN,
    };
}

std::optional<std::int64_t> Session::streamOf(std::int64_t packet, const TCPStreamKey::Endpoint& one,
                                              const TCPStreamKey::Endpoint& other) const
{
    const ConnectionIndex& connections = implementation_->connections();
    packet -= implementation_->packetsBefore;
    const std::array<TCPStreamKey::Endpoint, 2> endpoints{std::min(one, other), std::max(one, other)};
    const auto has = [&](const SegmentTable& segments) {
        // Segments stand in capture order.
        std::uint32_t low = 0;
        for (std::uint32_t count = segments.size(); count > 0;) {
            const std::uint32_t half = count / 2;
            const bool isBefore = segments[low + half].packetNumber() < packet;
            low = isBefore ? low + half + 1 : low;
            count = isBefore ? count - half - 1 : half;
        }
        return low < segments.size() && segments[low].packetNumber() == packet;
    };
    for (std::int64_t number = 0; number < connections.size(); ++number) {
        const Connection& connection = connections[number];
        if (connection.endpoints != endpoints) continue;
        for (const ConnectionSide& side : connection.sides)
            if (has(SegmentTable(side.segments))) return number;
    }
    return std::nullopt;
}

TCPStream Session::stream(std::int64_t stream) const { return implementation_->stream(stream); }
const std::vector<CaptureError>& Session::errors() const { return implementation_->errors; }
const DecoderNotes& Session::notes() const { return implementation_->notes; }
const SessionPlugIns& Session::plugIns() const { return implementation_->plugIns(); }
const Capture& Session::capture() const { return implementation_->capture(); }

}  // namespace sealscope
