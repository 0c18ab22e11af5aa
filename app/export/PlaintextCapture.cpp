// SPDX-License-Identifier: Apache-2.0
#include "app/export/PlaintextCapture.h"

#include "app/capture/CaptureWriter.h"
#include "app/capture/PacketDecoder.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <optional>
#include <tuple>
#include <utility>

namespace sealscope {

namespace {

constexpr std::size_t spoolPiece = 256 * 1'024;
constexpr std::int64_t longestPayload = 65'535 - 20 - 20;  // of a packet of IPv4 (RFC 791 §3.1), behind its headers and those of TCP

std::int64_t microseconds(double seconds)
{
    constexpr double furthest = 9e12;
    return std::llround(std::clamp(seconds, -furthest, furthest) * 1e6);
}

/// The sum of 16-bit words in network order that Internet checksums are made of (RFC 1071); an odd last byte counts as a
/// word's upper half. Pieces of even length may be added in any order.
class InternetChecksum {
public:
    void add(DataView bytes)
    {
        std::int64_t offset = 0;
        for (; offset + 4 <= bytes.size(); offset += 4) {
            std::uint32_t word;
            std::memcpy(&word, bytes.data() + offset, sizeof word);
            sum_ += word;
        }
        std::array<std::uint8_t, 4> rest{};
        std::ranges::copy(bytes.from(offset), rest.begin());
        std::uint32_t word;
        std::memcpy(&word, rest.data(), sizeof word);
        sum_ += word;
    }
    /// In network order, ready to be stored.
    std::uint16_t value() const
    {
        std::uint64_t sum = sum_;
        while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
        return static_cast<std::uint16_t>(~sum);
    }

private:
    std::uint64_t sum_ = 0;  // the byte order of the words does not matter to the sum, only to how it is stored
};

/// The headers of a packet, written field by field in network order.
class Headers {
public:
    void u8(std::uint8_t value) { bytes_[size_++] = value; }
    void u16(std::uint16_t value)
    {
        u8(static_cast<std::uint8_t>(value >> 8));
        u8(static_cast<std::uint8_t>(value));
    }
    void u32(std::uint32_t value)
    {
        u16(static_cast<std::uint16_t>(value >> 16));
        u16(static_cast<std::uint16_t>(value));
    }
    void copy(DataView bytes)
    {
        std::ranges::copy(bytes, bytes_.begin() + static_cast<std::ptrdiff_t>(size_));
        size_ += static_cast<std::size_t>(bytes.size());
    }
    void storeChecksum(std::size_t offset, const InternetChecksum& checksum)
    {
        const std::uint16_t value = checksum.value();
        std::memcpy(bytes_.data() + offset, &value, sizeof value);
    }
    std::size_t size() const { return size_; }
    DataView from(std::size_t offset) const { return {bytes_.data() + offset, static_cast<std::int64_t>(size_ - offset)}; }

private:
    std::array<std::uint8_t, 14 + 40 + 20> bytes_{};
    std::size_t size_ = 0;
};

struct PlannedPacket {
    std::int64_t microseconds = 0;
    const TCPStreamKey::Endpoint& source;
    const TCPStreamKey::Endpoint& destination;
    std::uint32_t sequenceNumber = 0;
    std::uint32_t acknowledgmentNumber = 0;
    std::uint8_t flags = 0;
    DataView payload;
};

DataView addressBytes(const TCPStreamKey::Endpoint& endpoint) { return {endpoint.address.data(), endpoint.isIPv6 ? 16 : 4}; }

/// Writes packets as Ethernet frames of a classic capture file.
class PacketWriter {
public:
    explicit PacketWriter(OutputFile& file)
        : writer_([&file](DataView bytes) {
              file.write(bytes);
              return true;
          })
    {
        constexpr std::uint32_t ethernet = 1, snapLength = 262'144;
        writer_.classicHeader(ethernet, snapLength, 6);
    }

    void write(const PlannedPacket& packet)
    {
        Headers headers;
        appendEthernet(headers, packet);
        if (packet.source.isIPv6)
            appendIPv6(headers, packet);
        else
            appendIPv4(headers, packet);
        appendTCP(headers, packet);

        constexpr std::int64_t perSecond = 1'000'000;
        const std::int64_t seconds = packet.microseconds / perSecond - (packet.microseconds % perSecond < 0);
        const CaptureTime time{
            .seconds = seconds, .units = static_cast<std::uint64_t>(packet.microseconds - seconds * perSecond), .resolution = perSecond};
        writer_.classicPacket(time, static_cast<std::int64_t>(headers.size()) + packet.payload.size(), headers.from(0), packet.payload);
    }

private:
    static constexpr std::uint16_t tcpHeaderLength = 20;
    static constexpr std::uint8_t tcp = 6, timeToLive = 64;

    static std::uint16_t segmentLength(const PlannedPacket& packet)
    {
        return static_cast<std::uint16_t>(tcpHeaderLength + packet.payload.size());
    }

    /// Locally administered addresses (IEEE 802), the client's ending in 1: which ones there were is not what was decrypted.
    static void appendEthernet(Headers& headers, const PlannedPacket& packet)
    {
        const bool isLowerFirst = packet.source < packet.destination;
        for (const std::uint8_t last :
             {isLowerFirst ? std::uint8_t{2} : std::uint8_t{1}, isLowerFirst ? std::uint8_t{1} : std::uint8_t{2}}) {
            headers.u8(0x02);
            headers.u32(0);
            headers.u8(last);
        }
        headers.u16(packet.source.isIPv6 ? 0x86DD : 0x0800);
    }

    static void appendIPv4(Headers& headers, const PlannedPacket& packet)
    {
        const std::size_t start = headers.size();
        headers.u8(0x45);
        headers.u8(0);
        headers.u16(static_cast<std::uint16_t>(20 + segmentLength(packet)));
        headers.u16(0);
        headers.u16(0x4000);  // not to be fragmented, so the identification may be zero (RFC 6864 §4.1)
        headers.u8(timeToLive);
        headers.u8(tcp);
        headers.u16(0);
        headers.copy(addressBytes(packet.source));
        headers.copy(addressBytes(packet.destination));
        InternetChecksum checksum;
        checksum.add(headers.from(start));
        headers.storeChecksum(start + 10, checksum);
    }

    static void appendIPv6(Headers& headers, const PlannedPacket& packet)
    {
        headers.u32(0x6000'0000);
        headers.u16(segmentLength(packet));
        headers.u8(tcp);
        headers.u8(timeToLive);
        headers.copy(addressBytes(packet.source));
        headers.copy(addressBytes(packet.destination));
    }

    static void appendTCP(Headers& headers, const PlannedPacket& packet)
    {
        const std::size_t start = headers.size();
        headers.u16(packet.source.port);
        headers.u16(packet.destination.port);
        headers.u32(packet.sequenceNumber);
        headers.u32(packet.acknowledgmentNumber);
        headers.u8(tcpHeaderLength / 4 << 4);
        headers.u8(packet.flags);
        headers.u16(0xFFFF);  // the window
        headers.u16(0);
        headers.u16(0);

        // The pseudo-header, whose fields sum up to the same for IPv4 and IPv6 (RFC 9293 §3.1, RFC 8200 §8.1).
        InternetChecksum checksum;
        checksum.add(addressBytes(packet.source));
        checksum.add(addressBytes(packet.destination));
        const std::uint16_t length = segmentLength(packet);
        const std::array<std::uint8_t, 4> protocolAndLength{0, tcp, static_cast<std::uint8_t>(length >> 8),
                                                            static_cast<std::uint8_t>(length)};
        checksum.add({protocolAndLength.data(), std::ssize(protocolAndLength)});
        checksum.add(headers.from(start));
        checksum.add(packet.payload);
        headers.storeChecksum(start + 16, checksum);
    }

    CaptureWriter writer_;
};

}  // namespace

std::expected<std::unique_ptr<PlaintextCapture>, SpoolError> PlaintextCapture::create(const std::string& folder)
{
    auto spool = SpoolFile::create(folder);
    if (!spool) return std::unexpected(std::move(spool.error()));
    return std::unique_ptr<PlaintextCapture>(new PlaintextCapture(std::move(*spool)));
}

std::uint32_t PlaintextCapture::addConnection(const TCPStream& stream)
{
    const std::lock_guard lock(mutex_);
    constexpr std::int64_t afterAll = std::numeric_limits<std::int64_t>::max();
    connections_.push_back({.client = stream.clientEndpoint,
                            .server = stream.serverEndpoint,
                            .clientNext = stream.clientISN,
                            .serverNext = stream.serverISN,
                            .start = {microseconds(stream.startTime), 0},
                            .end = {microseconds(stream.endTime), afterAll},
                            .number = stream.key.number});
    return static_cast<std::uint32_t>(connections_.size() - 1);
}

void PlaintextCapture::Direction::add(DataView plaintext, const ByteLocation& location)
{
    // What a packet brought late, because one before it was captured late, does not travel back in time.
    if (location.timestamp && !location.packetIds.empty())
        last_ = std::max(last_, {microseconds(*location.timestamp), location.packetIds.back()});
    // A record may be longer than a packet can be.
    std::int64_t offset = 0;
    do {
        const DataView piece = plaintext.sub(offset, longestPayload);
        // Tiny records of one packet stay together: what is kept of each is more than they hold.
        constexpr std::int64_t tiny = 256;
        Segment* const before = segments_.empty() ? nullptr : &segments_.back();
        if (before && before->passed == 0 && before->moment == last_ && before->length + piece.size() <= tiny)
            before->length += static_cast<std::uint32_t>(piece.size());
        else
            segments_.push_back({.moment = last_,
                                 .offset = std::ssize(bytes_),
                                 .length = static_cast<std::uint32_t>(piece.size()),
                                 .passed = 0,
                                 .connection = connection_,
                                 .direction = direction_});
        bytes_.insert(bytes_.end(), piece.begin(), piece.end());
        offset += piece.size();
    } while (offset < plaintext.size());
    if (bytes_.size() >= spoolPiece) putDown();
}

void PlaintextCapture::Direction::addGap(std::int64_t zeros, std::int64_t passed)
{
    static constexpr std::array<std::uint8_t, 16'384> block{};
    for (; zeros > 0; zeros -= std::ssize(block)) add(DataView(block).sub(0, zeros), {});
    if (passed == 0) return;
    segments_.push_back({.moment = last_,
                         .offset = std::ssize(bytes_),
                         .length = 0,
                         .passed = static_cast<std::uint32_t>(passed),
                         .connection = connection_,
                         .direction = direction_});
}

void PlaintextCapture::Direction::putDown()
{
    if (segments_.empty()) return;
    const std::lock_guard lock(capture_.mutex_);
    if (const auto place = capture_.spool_->append(DataView(bytes_))) {
        for (Segment& segment : segments_) segment.offset += *place;
        capture_.segments_.insert(capture_.segments_.end(), segments_.begin(), segments_.end());
    } else if (capture_.spooled_) {
        capture_.spooled_ = std::unexpected(place.error());
    }
    segments_.clear();
    bytes_.clear();
}

std::expected<void, SpoolError> PlaintextCapture::write(OutputFile& file, const std::stop_token& stop)
{
    if (!spooled_) return spooled_;
    // A connection opens at its first packet and closes at its last, and all its data come in between.
    for (Segment& segment : segments_) {
        const Connection& connection = connections_[segment.connection];
        segment.moment = std::clamp(segment.moment, connection.start, connection.end);
    }
    // What is passed over stands where the bytes behind it begin.
    std::ranges::sort(segments_, {}, [](const Segment& segment) { return std::tuple(segment.moment, segment.offset, segment.length); });
    std::vector<std::uint32_t> opening(connections_.size());
    std::iota(opening.begin(), opening.end(), std::uint32_t{0});
    std::vector<std::uint32_t> closing = opening;
    // Streams are announced in the order in which threads come to them; of one moment the lower number comes first.
    const auto sortBy = [&](std::vector<std::uint32_t>& order, Moment Connection::* moment) {
        std::ranges::sort(order, {}, [&](std::uint32_t i) { return std::pair(connections_[i].*moment, connections_[i].number); });
    };
    sortBy(opening, &Connection::start);
    sortBy(closing, &Connection::end);

    PacketWriter writer(file);
    using namespace TCPFlag;
    constexpr auto client = TCPSegment::Direction::clientToServer, server = TCPSegment::Direction::serverToClient;
    const auto send = [&](Connection& connection, Moment moment, TCPSegment::Direction direction, std::uint8_t flags,
                          DataView payload = {}) {
        std::uint32_t& own = direction == client ? connection.clientNext : connection.serverNext;
        writer.write({.microseconds = moment.microseconds,
                      .source = direction == client ? connection.client : connection.server,
                      .destination = direction == client ? connection.server : connection.client,
                      .sequenceNumber = own,
                      .acknowledgmentNumber = flags & ack ? (direction == client ? connection.serverNext : connection.clientNext) : 0,
                      .flags = flags,
                      .payload = payload});
        own += static_cast<std::uint32_t>(payload.size()) + ((flags & (syn | fin)) != 0);
    };
    auto nextOpening = opening.begin();
    auto nextSegment = segments_.begin();
    auto nextClosing = closing.begin();
    // An interruption does not throw away what was opened, nor does it wait for all of it to be written.
    constexpr std::chrono::milliseconds longestEnd{500};
    std::optional<std::chrono::steady_clock::time_point> end;
    const auto hasTime = [&] {
        if (!stop.stop_requested()) return true;
        if (!end) end = std::chrono::steady_clock::now() + longestEnd;
        return std::chrono::steady_clock::now() < *end;
    };
    while (nextClosing != closing.end() && file.isGood() && hasTime()) {
        Connection& closes = connections_[*nextClosing];
        const bool hasSegment = nextSegment != segments_.end() && nextSegment->moment <= closes.end;
        const Moment limit = hasSegment ? nextSegment->moment : closes.end;
        if (nextOpening != opening.end() && connections_[*nextOpening].start <= limit) {
            Connection& opens = connections_[*nextOpening++];
            send(opens, opens.start, client, syn);
            send(opens, opens.start, server, syn | ack);
            send(opens, opens.start, client, ack);
        } else if (hasSegment) {
            const Segment& segment = *nextSegment++;
            Connection& connection = connections_[segment.connection];
            if (segment.length > 0)
                send(connection, segment.moment, segment.direction, psh | ack, spool_->bytes(segment.offset, segment.length));
            else
                (segment.direction == client ? connection.clientNext : connection.serverNext) += segment.passed;
        } else {
            ++nextClosing;
            send(closes, closes.end, client, fin | ack);
            send(closes, closes.end, server, fin | ack);
            send(closes, closes.end, client, ack);
        }
    }
    return {};
}

}  // namespace sealscope
