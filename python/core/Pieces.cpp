// SPDX-License-Identifier: Apache-2.0
#include "python/core/Pieces.h"

#include "app/capture/Capture.h"
#include "app/streams/ConnectionIndex.h"
#include "python/core/OpenCapture.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <oneapi/tbb/task_arena.h>

namespace sealscope::python {

namespace {

constexpr std::int64_t toRandom = 11;  // record header, message header, version (RFC 8446 §4.1.2, §5.1)
constexpr std::int64_t randomLength = 32;

std::uint64_t mixed(std::uint64_t bits)
{
    bits = (bits ^ bits >> 32) * 0xD6E8FEB86659FD93;
    bits = (bits ^ bits >> 32) * 0xD6E8FEB86659FD93;
    return bits ^ bits >> 32;
}

std::uint64_t hashOf(const TCPStreamKey::Endpoint& endpoint)
{
    std::uint64_t halves[2];
    std::memcpy(halves, endpoint.address.data(), sizeof halves);
    return mixed(halves[0] ^ mixed(halves[1] ^ mixed(std::uint64_t{endpoint.port} << 1 | (endpoint.isIPv6 ? 1 : 0))));
}

PairHash pairOf(const TCPPacket& packet) { return mixed(hashOf(packet.source) + hashOf(packet.destination)); }

bool looksProtected(DataView payload)
{
    return payload.size() >= 3 && payload[0] >= 0x14 && payload[0] <= 0x17 && payload[1] == 3 && payload[2] <= 4;
}

/// How a packet travels.
struct PacketHead {
    std::int64_t number = 0;
    std::int64_t seconds = 0;
    std::uint64_t units = 0;
    std::uint64_t resolution = 0;
    std::int64_t originalLength = 0;
    std::uint32_t linkType = 0;
    std::uint32_t length = 0;  ///< of the frame that follows
};
static_assert(sizeof(PacketHead) == 48);

void put(std::vector<std::uint8_t>& bytes, std::uint64_t number, int count)
{
    for (int i = count - 1; i >= 0; --i) bytes.push_back(static_cast<std::uint8_t>(number >> 8 * i));
}

/// A segment that was put together from fragments, as the one packet that it would have been: raw IP, without options.
std::vector<std::uint8_t> rawFrame(const TCPPacket& segment)
{
    constexpr std::int64_t tcpLength = 20;
    std::vector<std::uint8_t> frame;
    const auto address = [&](const TCPStreamKey::Endpoint& endpoint) {
        frame.insert(frame.end(), endpoint.address.begin(), endpoint.address.begin() + (endpoint.isIPv6 ? 16 : 4));
    };
    const std::int64_t length = tcpLength + segment.payloadLength;
    if (segment.source.isIPv6) {
        put(frame, 0x60000000, 4);
        put(frame, static_cast<std::uint64_t>(length), 2);
        put(frame, 0x06FF, 2);
    } else {
        put(frame, 0x4500, 2);
        put(frame, static_cast<std::uint64_t>(20 + length), 2);
        put(frame, 0, 4);
        put(frame, 0xFF060000, 4);
    }
    address(segment.source);
    address(segment.destination);
    put(frame, segment.source.port, 2);
    put(frame, segment.destination.port, 2);
    put(frame, segment.sequenceNumber, 4);
    put(frame, segment.acknowledgmentNumber, 4);
    put(frame, 0x50, 1);
    put(frame, segment.flags, 1);
    put(frame, segment.window, 2);
    put(frame, 0, 2);
    put(frame, segment.urgentPointer, 2);
    frame.insert(frame.end(), segment.payload.begin(), segment.payload.end());
    return frame;
}

void append(std::string& packets, const CapturedPacket& packet, const TCPPacket& segment, std::int64_t packetsBefore)
{
    constexpr std::uint32_t rawIP = 101;
    const auto lies = [&](DataView payload) { return payload.data() >= packet.frame.data() && payload.end() <= packet.frame.end(); };
    PacketHead head{.number = packet.number + packetsBefore,
                    .seconds = packet.time.seconds,
                    .units = packet.time.units,
                    .resolution = packet.time.resolution,
                    .originalLength = packet.originalLength,
                    .linkType = packet.linkType};
    std::vector<std::uint8_t> made;
    DataView frame = packet.frame;
    if (!segment.payload.isEmpty() && !lies(segment.payload)) {
        frame = made = rawFrame(segment);
        head.linkType = rawIP;
        head.originalLength = frame.size();
    }
    head.length = static_cast<std::uint32_t>(frame.size());
    packets.append(reinterpret_cast<const char*>(&head), sizeof head);
    packets += frame.text();
}

/// Packets that travelled, as a capture.
class PacketsCapture final : public Capture {
public:
    explicit PacketsCapture(std::string packets) : packets_(std::move(packets)) {}

    bool next(CapturedPacket& packet) override
    {
        PacketHead head;
        if (packets_.size() - at_ < sizeof head) return false;
        std::memcpy(&head, packets_.data() + at_, sizeof head);
        at_ += sizeof head;
        const DataView rest = DataView(packets_).from(static_cast<std::int64_t>(at_));
        packet = {.number = head.number,
                  .time = {head.seconds, head.units, head.resolution},
                  .frame = rest.sub(0, head.length),
                  .address = static_cast<CaptureAddress>(at_),
                  .originalLength = head.originalLength,
                  .linkType = head.linkType};
        at_ += static_cast<std::size_t>(packet.frame.size());
        return true;
    }
    const std::vector<std::string>& files() const override { return files_; }
    const std::vector<CaptureError>& errors() const override { return errors_; }
    DataView bytes(CaptureAddress address, std::int64_t count) const override { return DataView(packets_).sub(address, count); }
    /// No packet that travels is a fragment.
    CaptureAddress keep(DataView) override { return -1; }
    SecretText takeEmbeddedKeyLog() override { return {}; }
    std::int64_t bytesRead() const override { return static_cast<std::int64_t>(at_); }
    std::int64_t bytesTotal() const override { return std::ssize(packets_); }

private:
    const std::string packets_;
    std::size_t at_ = 0;
    std::vector<std::string> files_;
    std::vector<CaptureError> errors_;
};

PieceRows rowsOf(const Session& session, PieceOptions& options, const std::stop_token& stop)
{
    PieceRows rows{.errors = session.errors()};
    const auto numbers = StreamLines::all(session);
    for (const std::int64_t number : numbers) rows.firstPackets.push_back(session.firstPacket(number));
    const Lines::Take take = [&](const std::string& lines) {
        rows.rows += lines;
        return !stop.stop_requested();
    };
    // Whoever has several pieces to work on does so side by side; each takes one thread.
    oneapi::tbb::task_arena(1).execute([&] {
        switch (options.kind) {
        case RowKind::streams:
            StreamLines::streams(session, StreamVerdicts(session, std::move(options.keyLog)), numbers, take, stop);
            break;
        case RowKind::exchanges: StreamLines::exchanges(session, numbers, take, stop); break;
        case RowKind::objects: StreamLines::objects(session, numbers, options.folder, false, take, stop); break;
        }
    });
    std::ranges::move(session.capture().lostFiles(), std::back_inserter(rows.errors));
    return rows;
}

}  // namespace

FileScan scanFile(const std::string& file, const std::stop_token& stop)
{
    auto opened = Capture::open({file}, {.stop = stop});
    if (!opened) throw CaptureFailure(std::move(opened.error()));
    Capture& capture = **opened;
    FileScan scan;
    struct Seen {
        bool isProtected = false;
        bool hasHello = false;
    };
    std::unordered_map<PairHash, Seen> pairs;
    std::pair<PairHash, Seen*> latest{0, nullptr};
    PacketDecoder decoder;
    CapturedPacket packet;
    TCPPacket segment;
    while (capture.next(packet)) {
        if (scan.packets++ == 0) scan.first = packet.time;
        if (!decoder.decode(packet, segment)) continue;
        const PairHash pair = pairOf(segment);
        // Packets of one connection tend to follow each other.
        if (!latest.second || latest.first != pair) latest = {pair, &pairs[pair]};
        Seen& seen = *latest.second;
        if (!looksProtected(segment.payload)) continue;
        seen.isProtected = true;
        if (!looksLikeClientHello(segment.payload) || segment.payload.size() < toRandom + randomLength) continue;
        seen.hasHello = true;
        std::uint64_t random;
        std::memcpy(&random, segment.payload.data() + toRandom, sizeof random);
        scan.clients.emplace_back(pair, random);
    }
    for (const auto& [pair, seen] : pairs) {
        scan.pairs.push_back(pair);
        if (seen.isProtected && !seen.hasHello) scan.strangers.push_back(pair);
    }
    std::ranges::sort(scan.pairs);
    std::ranges::sort(scan.clients);
    const auto repeated = std::ranges::unique(scan.clients);
    scan.clients.erase(repeated.begin(), repeated.end());
    scan.secrets = capture.takeEmbeddedKeyLog();
    scan.bytes = capture.bytesRead();
    scan.errors = capture.errors();
    return scan;
}

std::vector<std::pair<PairHash, std::vector<std::int64_t>>> sharedPairs(const std::vector<DataView>& files)
{
    std::vector<std::pair<PairHash, std::uint32_t>> all;
    for (std::size_t file = 0; file < files.size(); ++file) {
        for (std::int64_t at = 0; at + std::int64_t{sizeof(PairHash)} <= files[file].size(); at += sizeof(PairHash)) {
            PairHash pair;
            std::memcpy(&pair, files[file].data() + at, sizeof pair);
            all.emplace_back(pair, static_cast<std::uint32_t>(file));
        }
    }
    std::ranges::sort(all);
    std::vector<std::pair<PairHash, std::vector<std::int64_t>>> shared;
    for (auto first = all.begin(); first != all.end();) {
        const auto behind = std::find_if(first, all.end(), [&](const auto& entry) { return entry.first != first->first; });
        if (behind - first > 1) {
            auto& entry = shared.emplace_back(first->first, std::vector<std::int64_t>());
            std::transform(first, behind, std::back_inserter(entry.second), [](const auto& one) { return one.second; });
        }
        first = behind;
    }
    return shared;
}

PieceRows workOnFile(const std::string& file, const std::string& filter, std::int64_t packetsBefore,
                     const std::unordered_map<PairHash, std::int64_t>& travelling, std::map<std::int64_t, std::string>& packets,
                     PieceOptions options, const std::stop_token& stop)
{
    std::function<bool(const CapturedPacket&, const TCPPacket&)> admits;
    if (!travelling.empty())
        admits = [&](const CapturedPacket& packet, const TCPPacket& segment) {
            const auto found = travelling.find(pairOf(segment));
            if (found == travelling.end()) return true;
            append(packets[found->second], packet, segment, packetsBefore);
            return false;
        };
    const auto session = openedSession({.files = {file},
                                        .filter = filter,
                                        .plugIns = options.plugIns,
                                        .secrets = std::make_shared<const KeyLogSources>(std::move(options.secrets)),
                                        .packetsBefore = packetsBefore,
                                        .admits = std::move(admits),
                                        .stop = stop});
    return rowsOf(*session, options, stop);
}

PieceRows workOnPackets(std::string packets, PieceOptions options, const std::stop_token& stop)
{
    const auto session = Session::open(std::make_shared<PacketsCapture>(std::move(packets)),
                                       {.plugIns = options.plugIns,
                                        .secrets = std::make_shared<const KeyLogSources>(std::move(options.secrets)),
                                        .stop = stop});
    return rowsOf(*session, options, stop);
}

}  // namespace sealscope::python
