// SPDX-License-Identifier: Apache-2.0
#include "app/streams/ReassembledStream.h"

#include "app/capture/Capture.h"
#include "app/streams/Reassembler.h"
#include "app/streams/SequenceSpace.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

namespace sealscope {

namespace {

/// What lost bytes are read from, piece by piece.
constexpr std::array<std::uint8_t, 16'384> zeros{};

/// What lies around the packets that were last looked up; those that follow are most often there as well.
class CaptureWindow {
public:
    explicit CaptureWindow(const Capture& capture) : capture_(capture) {}

    DataView bytes(CaptureAddress address, std::int64_t count)
    {
        if (!bytes_.holds(address - begin_, count)) {
            // No more than who reads on will touch: a temporary file reckons its pages by what it hands out.
            constexpr std::int64_t usual = 1 << 16;
            bytes_ = capture_.bytes(address, std::max(count, usual));
            begin_ = address;
        }
        return bytes_.sub(address - begin_, count);
    }

private:
    const Capture& capture_;
    DataView bytes_;
    CaptureAddress begin_ = 0;
};

/// One direction of a connection: its data, and the packets that carried it.
class ReassembledDirection final : public StreamByteSource, public ByteLocator {
public:
    ReassembledDirection(const Capture& capture, const Connection& connection, std::size_t side, std::int64_t packetsBefore = 0)
        : capture_(capture), packetsBefore_(packetsBefore), acknowledged_(connection.acknowledged(side)),
          segments_(connection.sides[side].segments), data_(reassemble(segments_, acknowledged_))
    {}

    const SegmentTable& segments() const { return segments_; }
    const Reassembly& data() const { return data_; }

    DataView stretch(std::int64_t offset) const override
    {
        CaptureWindow window(capture_);
        return stretchOf(ownerOf(offset), offset, window);
    }

    void forEachStretch(std::int64_t offset, std::int64_t count, const std::function<void(DataView)>& visit) const override;

    std::optional<ByteRange> hole(std::int64_t offset) const override
    {
        const Owner owner = ownerOf(offset);
        return owner.segment ? std::nullopt : std::optional(ByteRange{owner.begin, owner.end});
    }
    std::int64_t holeBytes() const override { return data_.missingBytes; }

    ByteLocation locate(ByteRange range) const override
    {
        ByteLocation location;
        PacketIdCollector packets(location.packetIds);
        const std::int64_t upper = std::min(range.upper, data_.size);
        for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < upper;) {
            const Owner owner = ownerOf(offset);
            if (owner.segment) {
                packets.add(packetsBefore_ + owner.segment->packetNumber());
                location.timestamp = std::min(location.timestamp.value_or(owner.segment->time), owner.segment->time);
            }
            offset = owner.end;
        }
        return location;
    }

    /// How many bytes of segments differ from the copy that stands in the data.
    std::int64_t contradictingBytes() const;

    /// Starts to bring near the first bytes of the first segments, where the headers of most messages begin. They lie far from each
    /// other in the capture, and so the waiting for all of them is no longer than for one.
    void announce() const
    {
        constexpr std::uint32_t most = 12;
        CaptureWindow window(capture_);
        for (std::uint32_t position = 0; position < std::min(segments_.size(), most); ++position)
            if (const SegmentRecord& segment = segments_[position]; segment.captured > 0)
                __builtin_prefetch(window.bytes(segment.address, 1).data());
    }

private:
    /// Who carried a byte and those after it: a segment, or none when they were lost.
    struct Owner {
        const SegmentRecord* segment = nullptr;
        std::int64_t begin = 0;  ///< offset at which the segment's payload, or the hole, begins
        std::int64_t end = 0;    ///< offset up to which the bytes are its own
        std::size_t run = 0;     ///< of the segment, and its position in the list
        std::uint32_t position = 0;
    };

    /// Bytes of the data in one place, of a range that was looked at last.
    struct Gathered {
        std::int64_t begin = 0;
        std::vector<std::uint8_t> bytes;
        std::int64_t end() const { return begin + std::ssize(bytes); }
    };
    /// How many bytes of a segment's captured part, which lies at begin ..< end, differ from the data. Segments that overlap many
    /// others mostly overlap what the one before did: `known` is gathered no more than once.
    std::int64_t differences(const SegmentRecord& segment, std::int64_t begin, std::int64_t end, Gathered& known) const;
    /// The owner of an offset that lies inside the data.
    Owner ownerOf(std::int64_t offset) const;
    /// The same for the offset at which what `before` owns ends: most often the next segment's.
    Owner ownerAfter(const Owner& before) const;
    Owner owner(std::size_t run, std::uint32_t position, const SegmentRecord& segment) const;
    void keepInMind(std::size_t run, std::uint32_t position) const
    {
        latest_.store(std::uint64_t{run} << 32 | position, std::memory_order_relaxed);
    }
    /// What there is of an owner's bytes from an offset on; never empty.
    static DataView stretchOf(const Owner& owner, std::int64_t offset, CaptureWindow& window)
    {
        if (owner.segment) {
            const DataView bytes = window.bytes(owner.segment->address + (offset - owner.begin), owner.end - offset);
            // A capture file that became shorter since it was indexed leaves nothing to show either.
            if (!bytes.isEmpty()) return bytes;
        }
        return DataView(zeros).sub(0, owner.end - offset);
    }

    /// Offset after the last byte that a segment of a run brings, counted from the run's first byte.
    static std::int64_t endInRun(const SegmentRun& run, const SegmentRecord& segment)
    {
        return sequenceDistance(run.number, segment.dataNumber()) + segment.capturedData();
    }

    const Capture& capture_;
    std::int64_t packetsBefore_ = 0;
    std::optional<Acknowledged> acknowledged_;
    SegmentTable segments_;
    Reassembly data_;
    /// Run and segment of the last answer, in the upper and the lower half. Most questions are about the same segment or the
    /// next. A hint only: it may come from another thread, and is checked before it is used.
    mutable std::atomic<std::uint64_t> latest_ = 0;
};

ReassembledDirection::Owner ReassembledDirection::ownerOf(std::int64_t offset) const
{
    const std::vector<SegmentRun>& runs = data_.runs;
    const std::uint64_t latest = latest_.load(std::memory_order_relaxed);

    // The last run that begins at or before the offset.
    std::size_t index = latest >> 32;
    const auto holdsOffset = [&](std::size_t run) { return run < runs.size() && runs[run].offset <= offset && offset < runs[run].end(); };
    if (!holdsOffset(index) && !holdsOffset(++index)) {
        const auto after = std::ranges::upper_bound(runs, offset, {}, &SegmentRun::offset);
        if (after == runs.begin()) return {.end = runs.empty() ? data_.size : runs.front().offset};
        index = static_cast<std::size_t>(after - runs.begin()) - 1;
        if (const std::int64_t begin = runs[index].end(); begin <= offset)
            return {.begin = begin, .end = after == runs.end() ? data_.size : after->offset};
    }
    const SegmentRun& run = runs[index];

    // The first of its segments that ends after the offset.
    const std::int64_t inRun = offset - run.offset;
    const auto endsAfter = [&](std::uint32_t position) { return endInRun(run, segments_[position]) > inRun; };
    const std::uint32_t runEnd = run.first + run.count;
    auto position = static_cast<std::uint32_t>(latest);
    bool isFound = false;
    if (position >= run.first && position < runEnd && (position == run.first || !endsAfter(position - 1))) {
        const std::uint32_t last = std::min(position + 4, runEnd);
        while (position < last && !(isFound = endsAfter(position))) ++position;
    }
    if (!isFound) {
        std::uint32_t low = run.first;
        for (std::uint32_t count = run.count; count > 0;) {
            const std::uint32_t half = count / 2;
            if (endsAfter(low + half)) {
                count = half;
            } else {
                low += half + 1;
                count -= half + 1;
            }
        }
        position = low;
    }
    keepInMind(index, position);
    return owner(index, position, segments_[position]);
}

ReassembledDirection::Owner ReassembledDirection::owner(std::size_t run, std::uint32_t position, const SegmentRecord& segment) const
{
    const SegmentRun& inside = data_.runs[run];
    const std::int64_t begin = inside.offset + sequenceDistance(inside.number, segment.dataNumber());
    return {.segment = &segment,
            .begin = begin,
            .end = std::min(begin + static_cast<std::int64_t>(segment.captured), inside.end()),
            .run = run,
            .position = position};
}

ReassembledDirection::Owner ReassembledDirection::ownerAfter(const Owner& before) const
{
    if (!before.segment) return ownerOf(before.end);
    const SegmentRun& run = data_.runs[before.run];
    const std::uint32_t next = before.position + 1;
    if (before.end == run.end() || next == run.first + run.count) return ownerOf(before.end);
    const SegmentRecord& segment = segments_[next];
    return run.offset + endInRun(run, segment) > before.end ? owner(before.run, next, segment) : ownerOf(before.end);
}

void ReassembledDirection::forEachStretch(std::int64_t offset, std::int64_t count, const std::function<void(DataView)>& visit) const
{
    if (count <= 0) return;
    const std::int64_t upper = offset + count;
    CaptureWindow window(capture_);
    Owner at = ownerOf(offset);
    while (true) {
        const DataView bytes = stretchOf(at, offset, window).sub(0, upper - offset);
        visit(bytes);
        offset += bytes.size();
        if (offset == upper) break;
        if (offset == at.end) at = ownerAfter(at);
    }
    if (at.segment) keepInMind(at.run, at.position);
}

std::int64_t ReassembledDirection::contradictingBytes() const
{
    if (!data_.hasOverlaps) return 0;
    std::int64_t contradicting = 0;
    Gathered known;
    SequenceSpace space(acknowledged_);
    for (std::uint32_t position = 0; position < segments_.size();) {
        for (const SegmentRecord& segment : segments_.chunkFrom(position)) {
            const auto placed = space.place(segment);
            if (placed && !placed->isNew && !segment.mayRepeatAnything())
                contradicting += differences(segment, data_.offsetOf(placed->begin), data_.offsetOf(placed->capturedEnd), known);
            ++position;
        }
    }
    return contradicting;
}

std::int64_t ReassembledDirection::differences(const SegmentRecord& segment, std::int64_t begin, std::int64_t end, Gathered& known) const
{
    if (begin >= end) return 0;
    const std::int64_t inSegment = static_cast<std::int64_t>(segment.captured) - (end - begin);
    const DataView again = capture_.bytes(segment.address + inSegment, end - begin);
    if (begin < known.begin || begin >= known.end())
        known = {.begin = begin, .bytes = {}};
    else if (const std::int64_t behind = begin - known.begin; behind > 0)
        known.bytes.erase(known.bytes.begin(), known.bytes.begin() + behind), known.begin = begin;
    bool isThere = true;
    while (known.end() < end) {
        const std::int64_t offset = known.end();
        const Owner owner = ownerOf(offset);
        const std::int64_t count = std::min(owner.end, end) - offset;
        const DataView first = owner.segment ? capture_.bytes(owner.segment->address + (offset - owner.begin), count) : DataView();
        known.bytes.insert(known.bytes.end(), first.begin(), first.end());
        if (first.size() == count) continue;
        // Nobody carried these, or they are lost with the end of the file: they differ from nothing.
        isThere = false;
        const DataView same = again.sub(known.end() - begin, offset + count - known.end());
        known.bytes.insert(known.bytes.end(), same.begin(), same.end());
        known.bytes.resize(static_cast<std::size_t>(offset + count - known.begin));
    }
    std::int64_t count = 0;
    if (const DataView first(known.bytes.data(), again.size()); !(first == again))
        for (std::int64_t i = 0; i < again.size(); ++i) count += first[i] != again[i];
    if (!isThere) known = {};
    return count;
}

/// The segments of both directions, merged by packet number.
class MergedSegments final : public TCPSegmentSource {
public:
    MergedSegments(const SegmentTable& client, const SegmentTable& server, std::int64_t packetsBefore)
        : client_(client), server_(server), packetsBefore_(packetsBefore)
    {}

    std::int64_t count() const override { return std::int64_t{client_.size()} + server_.size(); }

    TCPSegment segment(std::int64_t position) const override
    {
        // Of the first `position` segments, as many are the client's as keeps the numbers of both sides in order.
        std::int64_t low = std::max<std::int64_t>(0, position - server_.size());
        std::int64_t high = std::min<std::int64_t>(position, client_.size());
        while (low < high) {
            const std::int64_t middle = low + (high - low) / 2;
            if (number(client_, middle) < number(server_, position - middle - 1)) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        const std::int64_t other = position - low;
        const bool isClient = other >= server_.size() || (low < client_.size() && number(client_, low) < number(server_, other));
        const SegmentRecord& record = isClient ? client_[static_cast<std::uint32_t>(low)] : server_[static_cast<std::uint32_t>(other)];
        return {
            .direction = isClient ? TCPSegment::Direction::clientToServer : TCPSegment::Direction::serverToClient,
            .packetId = packetsBefore_ + record.packetNumber(),
            .sequenceNumber = record.sequenceNumber,
            .payloadLength = static_cast<std::int64_t>(record.length),
            .timestamp = record.time,
        };
    }

private:
    static std::int64_t number(const SegmentTable& segments, std::int64_t position)
    {
        return segments[static_cast<std::uint32_t>(position)].packetNumber();
    }

    const SegmentTable& client_;
    const SegmentTable& server_;
    std::int64_t packetsBefore_ = 0;
};

/// Everything that a stream's records point to, kept together until the last of them goes.
struct ReassembledStream {
    std::shared_ptr<const Capture> capture;
    std::shared_ptr<const ConnectionIndex> index;
    ReassembledDirection client;
    ReassembledDirection server;
    MergedSegments segments;

    ReassembledStream(std::shared_ptr<const Capture> ofCapture, std::shared_ptr<const ConnectionIndex> ofIndex,
                      const Connection& connection, std::int64_t packetsBefore)
        : capture(std::move(ofCapture)), index(std::move(ofIndex)), client(*capture, connection, connection.client, packetsBefore),
          server(*capture, connection, 1 - connection.client, packetsBefore), segments(client.segments(), server.segments(), packetsBefore)
    {}
};

/// The number before the first byte's where the SYN was not captured; 0 when not even a byte was.
std::uint32_t initialSequenceNumber(const ConnectionSide& side, const Reassembly& data)
{
    if (side.hasSYN) return side.initialSequenceNumber;
    return data.firstNumber ? *data.firstNumber - 1 : side.hasReference ? side.acknowledged.reference - 1 : 0;
}

StreamMeasures measuresOf(const ReassembledDirection& client, const ReassembledDirection& server)
{
    return {
        .clientBytes = client.data().size,
        .serverBytes = server.data().size,
        .missingBytes = client.data().missingBytes + server.data().missingBytes,
        .contradictingBytes = client.contradictingBytes() + server.contradictingBytes(),
        .restarts = client.data().restarts + server.data().restarts,
    };
}

}  // namespace

TCPStream reassembledStream(std::shared_ptr<const Capture> capture, std::shared_ptr<const ConnectionIndex> index, std::int64_t number,
                            StreamMeasures* measures, std::int64_t packetsBefore)
{
    const Connection& connection = (*index)[number];
    const auto stream = std::make_shared<const ReassembledStream>(std::move(capture), std::move(index), connection, packetsBefore);
    stream->client.announce();
    stream->server.announce();
    if (measures) *measures = measuresOf(stream->client, stream->server);
    const std::size_t client = connection.client;
    const auto data = [&](const ReassembledDirection& direction) {
        return StreamData(std::shared_ptr<const StreamByteSource>(stream, &direction), direction.data().size);
    };
    const auto byteIndex = [&](const ReassembledDirection& direction) {
        return ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(stream, &direction));
    };
    return {
        .key = {connection.endpoints[client], connection.endpoints[1 - client], number},
        .segments = TCPSegments(std::shared_ptr<const TCPSegmentSource>(stream, &stream->segments)),
        .clientToServerData = data(stream->client),
        .serverToClientData = data(stream->server),
        .clientByteIndex = byteIndex(stream->client),
        .serverByteIndex = byteIndex(stream->server),
        .clientISN = initialSequenceNumber(connection.sides[client], stream->client.data()),
        .serverISN = initialSequenceNumber(connection.sides[1 - client], stream->server.data()),
        .clientEndpoint = connection.endpoints[client],
        .serverEndpoint = connection.endpoints[1 - client],
        .startTime = connection.startTime,
        .endTime = connection.endTime,
    };
}

StreamMeasures measureStream(const Capture& capture, const Connection& connection)
{
    const ReassembledDirection client(capture, connection, connection.client);
    const ReassembledDirection server(capture, connection, 1 - connection.client);
    return measuresOf(client, server);
}

void settleClients(const std::shared_ptr<const Capture>& capture, const std::shared_ptr<ConnectionIndex>& index)
{
    std::vector<std::uint8_t> scratch;
    for (std::int64_t number = 0; number < index->size(); ++number) {
        const Connection& connection = (*index)[number];
        if (connection.clientEvidence != Connection::Evidence::higherPort || !connection.hasData) continue;
        const TCPStream stream = reassembledStream(capture, index, number);
        const auto beginsWithHello = [&](const StreamData& data) {
            return looksLikeClientHello(data.gather(0, clientHelloBytes, scratch));
        };
        if (beginsWithHello(stream.clientToServerData))
            index->setClient(number, connection.client);
        else if (beginsWithHello(stream.serverToClientData))
            index->setClient(number, 1 - connection.client);
    }
}

}  // namespace sealscope
