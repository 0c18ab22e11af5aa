// SPDX-License-Identifier: Apache-2.0
#include "python/core/Pieces.h"

#include "app/capture/Capture.h"
#include "app/streams/ConnectionIndex.h"
#include "python/core/OpenCapture.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <limits>
#include <malloc.h>
#include <oneapi/tbb/task_arena.h>
#include <stdexcept>

namespace sealscope::python {

namespace {

constexpr std::int64_t toRandom = 11;  // record header, message header, version (RFC 8446 §4.1.2, §5.1)
constexpr std::int64_t randomLength = 32;
constexpr std::uint32_t rawIP = 101;

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

PairHash pairOf(const TCPStreamKey::Endpoint& one, const TCPStreamKey::Endpoint& other) { return mixed(hashOf(one) + hashOf(other)); }

bool looksProtected(DataView payload)
{
    return payload.size() >= 3 && payload[0] >= 0x14 && payload[0] <= 0x17 && payload[1] == 3 && payload[2] <= 4;
}

/// How a packet travels.
struct PacketHead {
    std::int64_t number = 0;
    std::int64_t before = 0;  ///< connections that stay in its file and begin before it
    std::int64_t seconds = 0;
    std::uint64_t units = 0;
    std::uint64_t resolution = 0;
    std::int64_t originalLength = 0;
    std::uint32_t linkType = 0;
    std::uint32_t length = 0;  ///< of the frame that follows
};
static_assert(sizeof(PacketHead) == 56);

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
        places_.emplace_back(head.number, head.before);
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
    /// Of a packet, what its head says.
    std::int64_t before(std::int64_t number) const
    {
        return std::ranges::lower_bound(places_, number, {}, &std::pair<std::int64_t, std::int64_t>::first)->second;
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
    std::vector<std::pair<std::int64_t, std::int64_t>> places_;
    std::vector<std::string> files_;
    std::vector<CaptureError> errors_;
};

/// A worker makes rows for hours, and its memory is given back and taken anew for each piece; workers are even started with settings that
/// give back every 64 kilobytes. Faulting pages in again is a tenth of the work.
void keepMemoryBetweenPieces()
{
#ifdef M_TRIM_THRESHOLD
    static const bool done = mallopt(M_TRIM_THRESHOLD, 128 << 20) + mallopt(M_MMAP_THRESHOLD, 32 << 20) > 0;
    static_cast<void>(done);
#endif
}

/// Whoever has several pieces to work on does so side by side; each takes one thread.
template <class Work> void onOneThread(Work work)
{
    keepMemoryBetweenPieces();
    oneapi::tbb::task_arena(1).execute(work);
}

/// Rows of the connections that `rows` numbers.
void makeRows(PieceRows& rows, const Session& session, PieceOptions& options, const std::stop_token& stop)
{
    const Lines::Take take = [&](const std::string& lines) {
        rows.rows += lines;
        return !stop.stop_requested();
    };
    onOneThread([&] {
        switch (options.kind) {
        case RowKind::streams:
            StreamLines::streams(session, StreamVerdicts(session, std::move(options.keyLog)), rows.numbers, take, stop);
            break;
        case RowKind::exchanges: StreamLines::exchanges(session, rows.numbers, take, stop); break;
        case RowKind::objects: StreamLines::objects(session, rows.numbers, options.folder, ObjectFolder::Existing::kept, take, stop); break;
        }
    });
    std::ranges::move(session.capture().lostFiles(), std::back_inserter(rows.errors));
}

}  // namespace

Piece::Piece(const std::string& file, const std::string& filter, const PlugInOptions& plugIns, const std::stop_token& stop)
{
    auto opened = Capture::open({file}, {.randomAccess = true, .filter = filter, .stop = stop});
    if (!opened) throw CaptureFailure(std::move(opened.error()));
    const std::shared_ptr<Capture> capture = std::move(*opened);
    onOneThread([&] {
        session_ = Session::open(capture, {.plugIns = plugIns,
                                           .secrets = std::make_shared<const KeyLogSources>(SecretText()),
                                           .admits =
                                               [&](const CapturedPacket& packet, const TCPPacket& segment) {
                                                   keep(*capture, packet, segment);
                                                   return true;
                                               },
                                           .stop = stop});
    });
    const std::int64_t count = session_->streamCount();
    for (std::int64_t number = 0; number < count; ++number) {
        const auto& ends = session_->endpoints(number);
        const std::uint32_t pair = numberOfPair_.at(pairOf(ends[0], ends[1]));
        ++pairs_[pair].connections;
        pairOfConnection_.push_back(pair);
        firstPackets_.push_back(session_->firstPacket(number));
    }
    for (const Pair& pair : pairs_) {
        scan_.pairs.push_back(pair.hash);
        if (pair.isProtected && !pair.hasHello) scan_.strangers.push_back(pair.hash);
        if (pair.connections != 1) scan_.others.emplace_back(pair.hash, pair.connections);
    }
    std::ranges::sort(scan_.pairs);
    std::ranges::sort(scan_.clients);
    const auto repeated = std::ranges::unique(scan_.clients);
    scan_.clients.erase(repeated.begin(), repeated.end());
    const auto [first, packets] = capture->extent();
    scan_.first = first;
    scan_.packets = packets;
    scan_.connections = count;
    scan_.secrets = session_->embeddedKeyLog();
    scan_.bytes = capture->bytesRead();
    scan_.errors = session_->errors();
    letGo();
}

std::uint64_t Piece::kindOf(const Kind& kind)
{
    // The latest come last, and a file has few.
    const auto found = std::find(kinds_.rbegin(), kinds_.rend(), kind);
    if (found != kinds_.rend()) return static_cast<std::uint64_t>(std::distance(found, kinds_.rend()) - 1);
    kinds_.push_back(kind);
    return kinds_.size() - 1;
}

void Piece::keep(Capture& capture, const CapturedPacket& packet, const TCPPacket& segment)
{
    const PairHash hash = pairOf(segment.source, segment.destination);
    // Packets of one connection tend to follow each other.
    if (pairs_.empty() || pairs_[latest_].hash != hash) {
        const auto [at, isNew] = numberOfPair_.try_emplace(hash, static_cast<std::uint32_t>(pairs_.size()));
        if (isNew) pairs_.push_back({.hash = hash});
        latest_ = at->second;
    }
    Kept kept{.address = packet.address, .seconds = packet.time.seconds, .units = packet.time.units};
    kept.number = static_cast<std::uint64_t>(packet.number);
    std::uint32_t linkType = packet.linkType;
    std::int64_t length = packet.frame.size();
    std::int64_t originalLength = packet.originalLength;
    const DataView payload = segment.payload;
    if (!payload.isEmpty() && !(payload.data() >= packet.frame.data() && payload.end() <= packet.frame.end())) {
        const std::vector<std::uint8_t> made = rawFrame(segment);
        kept.address = capture.keep(made);
        originalLength = length = std::ssize(made);
        linkType = rawIP;
    }
    kept.kind = kindOf({packet.time.resolution, linkType});
    kept.length = static_cast<std::uint32_t>(length);
    kept.originalLength = static_cast<std::uint32_t>(std::min<std::int64_t>(originalLength, std::numeric_limits<std::uint32_t>::max()));
    if (kept.address >= 0) {
        kept_.push_back(kept);
        pairOfKept_.push_back(latest_);
    }

    Pair& pair = pairs_[latest_];
    if (!looksProtected(payload)) return;
    pair.isProtected = true;
    if (!looksLikeClientHello(payload) || payload.size() < toRandom + randomLength) return;
    pair.hasHello = true;
    std::uint64_t random;
    std::memcpy(&random, payload.data() + toRandom, sizeof random);
    scan_.clients.emplace_back(hash, random);
}

std::int64_t Piece::memory() const
{
    constexpr std::int64_t ofPacket = sizeof(Kept) + sizeof(std::uint32_t) + sizeof(SegmentRecord);
    constexpr std::int64_t ofConnection = sizeof(Connection) + sizeof(Pair) + 64;
    return std::ssize(kept_) * ofPacket + scan_.connections * ofConnection;
}

void Piece::letGo() const { session_->capture().letGo(0, 0, session_->capture().fileBytes(0).size()); }

std::vector<bool> Piece::staying(const Travelling& travelling) const
{
    std::vector<bool> stays(pairs_.size(), true);
    for (const auto& [hash, group] : travelling)
        if (const auto found = numberOfPair_.find(hash); found != numberOfPair_.end()) stays[found->second] = false;
    return stays;
}

std::vector<std::string> Piece::packets(const Travelling& travelling, const std::vector<std::int64_t>& groups,
                                        std::int64_t packetsBefore) const
{
    const std::vector<bool> stays = staying(travelling);
    std::vector<std::int64_t> firstStaying;
    for (std::size_t i = 0; i < firstPackets_.size(); ++i)
        if (stays[pairOfConnection_[i]]) firstStaying.push_back(firstPackets_[i]);
    std::unordered_map<std::int64_t, std::size_t> placeOfGroup;
    for (std::size_t i = 0; i < groups.size(); ++i) placeOfGroup.emplace(groups[i], i);
    std::vector<std::string> packets(groups.size());
    std::vector<std::string*> placeOfPair(pairs_.size(), nullptr);
    for (const auto& [hash, group] : travelling) {
        const auto pair = numberOfPair_.find(hash);
        const auto place = placeOfGroup.find(group);
        if (pair != numberOfPair_.end() && place != placeOfGroup.end()) placeOfPair[pair->second] = &packets[place->second];
    }
    std::size_t before = 0;
    auto pair = pairOfKept_.begin();
    for (const Kept& kept : kept_) {
        std::string* const place = placeOfPair[*pair++];
        if (!place) continue;
        const auto number = static_cast<std::int64_t>(kept.number);
        while (before < firstStaying.size() && firstStaying[before] < number) ++before;
        const DataView frame = session_->capture().bytes(kept.address, kept.length);
        const Kind& kind = kinds_[kept.kind];
        const PacketHead head{.number = number + packetsBefore,
                              .before = static_cast<std::int64_t>(before),
                              .seconds = kept.seconds,
                              .units = kept.units,
                              .resolution = kind.resolution,
                              .originalLength = kept.originalLength,
                              .linkType = kind.linkType,
                              .length = static_cast<std::uint32_t>(frame.size())};
        place->append(reinterpret_cast<const char*>(&head), sizeof head);
        *place += frame.text();
    }
    return packets;
}

PieceRows Piece::rows(const Travelling& travelling, std::int64_t packetsBefore, PieceOptions options, const std::stop_token& stop) const
{
    const std::vector<bool> stays = staying(travelling);
    PieceRows rows;
    for (std::size_t i = 0; i < firstPackets_.size(); ++i) {
        if (!stays[pairOfConnection_[i]]) continue;
        rows.numbers.push_back(static_cast<std::int64_t>(i));
        rows.firstPackets.push_back(firstPackets_[i]);
    }
    makeRows(rows, *session_->asPart(std::make_shared<const KeyLogSources>(std::move(options.secrets)), packetsBefore), options, stop);
    letGo();
    return rows;
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

PieceRows workOnPackets(std::string packets, PieceOptions options, const std::stop_token& stop)
{
    const auto capture = std::make_shared<PacketsCapture>(std::move(packets));
    std::unique_ptr<Session> session;
    onOneThread([&] {
        session = Session::open(
            capture,
            {.plugIns = options.plugIns, .secrets = std::make_shared<const KeyLogSources>(std::move(options.secrets)), .stop = stop});
    });
    PieceRows rows{.numbers = StreamLines::all(*session), .errors = session->errors()};
    for (const std::int64_t number : rows.numbers) {
        rows.firstPackets.push_back(session->firstPacket(number));
        rows.before.push_back(capture->before(rows.firstPackets.back()));
    }
    makeRows(rows, *session, options, stop);
    return rows;
}

std::string numbered(std::string_view rows, const std::vector<std::int64_t>& numbers, const std::vector<std::int64_t>& whole)
{
    constexpr std::string_view head = R"({"stream":)";
    std::string text;
    text.reserve(rows.size() + rows.size() / 64);
    while (!rows.empty()) {
        std::int64_t number = -1;
        const auto [behind, error] = std::from_chars(rows.data() + head.size(), rows.data() + rows.size(), number);
        const auto at = std::ranges::lower_bound(numbers, number);
        if (!rows.starts_with(head) || error != std::errc() || at == numbers.end() || *at != number)
            throw std::invalid_argument("a row without the number of a connection here");
        fmt::format_to(std::back_inserter(text), "{}{}", head, whole[static_cast<std::size_t>(at - numbers.begin())]);
        const std::size_t end = std::min(rows.find('\n'), rows.size() - 1) + 1;
        const auto rest = static_cast<std::size_t>(behind - rows.data());
        text += rows.substr(rest, end - rest);
        rows.remove_prefix(end);
    }
    return text;
}

}  // namespace sealscope::python
