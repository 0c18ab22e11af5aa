// SPDX-License-Identifier: Apache-2.0
#include "harness/TCPConversation.h"

#include "harness/Hex.h"

#include <algorithm>
#include <arpa/inet.h>
#include <random>
#include <stdexcept>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
constexpr std::uint8_t fin = 0x01, syn = 0x02, rst = 0x04, psh = 0x08, ack = 0x10, urg = 0x20;

std::vector<std::int64_t> timesOf(const std::vector<PlannedSegment>& segments)
{
    std::vector<std::int64_t> times;
    for (const PlannedSegment& segment : segments) times.push_back(segment.time);
    return times;
}

}  // namespace

TCPStreamKey::Endpoint endpoint(std::string_view address, std::uint16_t port)
{
    TCPStreamKey::Endpoint result{.port = port, .isIPv6 = address.contains(':')};
    if (inet_pton(result.isIPv6 ? AF_INET6 : AF_INET, std::string(address).c_str(), result.address.data()) != 1)
        throw std::invalid_argument("no address: " + std::string(address));
    return result;
}

TCPConversation::TCPConversation(TCPConversationOptions options)
    : options_(std::move(options)), sides_{{.next = options_.clientISN + 1}, {.next = options_.serverISN + 1}}, time_(options_.startTime)
{}

PlannedSegment& TCPConversation::add(Direction from, std::uint8_t flags, Data payload)
{
    const bool isClient = from == Direction::clientToServer;
    Side& sender = side(from);
    PlannedSegment segment{.time = time_,
                           .direction = from,
                           .source = isClient ? options_.client : options_.server,
                           .destination = isClient ? options_.server : options_.client,
                           .sequenceNumber = sender.next,
                           .flags = flags,
                           .payload = std::move(payload)};
    if ((flags & ack) != 0) segment.acknowledgmentNumber = side(opposite(from)).next;
    sender.next += static_cast<std::uint32_t>(segment.payload.size()) + ((flags & fin) != 0 ? 1 : 0);
    time_ += options_.interval;
    return segments.emplace_back(std::move(segment));
}

void TCPConversation::open(const Data& synData)
{
    side(Direction::clientToServer).next = options_.clientISN;
    side(Direction::serverToClient).next = options_.serverISN;
    add(Direction::clientToServer, syn, synData);
    ++side(Direction::clientToServer).next;
    add(Direction::serverToClient, syn | ack, {});
    ++side(Direction::serverToClient).next;
    add(Direction::clientToServer, ack, {});
}

void TCPConversation::send(Direction from, const Data& bytes) { send(from, bytes, LastAnswer::acknowledgment); }

void TCPConversation::send(Direction from, const Data& bytes, LastAnswer answer)
{
    std::int64_t unanswered = 0;
    for (std::int64_t at = 0; at < bytes.size(); at += options_.segmentSize) {
        const bool isLast = at + options_.segmentSize >= bytes.size();
        add(from, isLast ? psh | ack : ack, bytes.sub(at, options_.segmentSize));
        if (!options_.acknowledges || !(isLast ? answer == LastAnswer::acknowledgment : ++unanswered == options_.segmentsPerAcknowledgment))
            continue;
        acknowledge(opposite(from));
        unanswered = 0;
    }
}

void TCPConversation::send(const std::vector<TLSFlight>& flights)
{
    for (std::size_t at = 0; at < flights.size(); ++at) {
        const bool isAnsweredByData = at + 1 < flights.size() && flights[at + 1].direction != flights[at].direction;
        send(flights[at].direction, flights[at].wire, isAnsweredByData ? LastAnswer::none : LastAnswer::acknowledgment);
    }
}

void TCPConversation::sendUrgent(Direction from, const Data& bytes)
{
    add(from, psh | ack | urg, bytes).urgentPointer = static_cast<std::uint16_t>(bytes.size());
}

void TCPConversation::skip(Direction from, std::int64_t count) { side(from).next += static_cast<std::uint32_t>(count); }

void TCPConversation::acknowledge(Direction from, std::uint16_t window) { add(from, ack, {}).window = window; }

void TCPConversation::keepAlive(Direction from)
{
    side(from).next -= 1;
    add(from, ack, Data{0});
    acknowledge(opposite(from));
}

void TCPConversation::probeZeroWindow(Direction from, std::uint8_t nextByte)
{
    acknowledge(opposite(from), 0);
    add(from, ack, Data{nextByte});
    side(from).next -= 1;
    acknowledge(opposite(from), 0);
    acknowledge(opposite(from));
}

void TCPConversation::close()
{
    add(Direction::clientToServer, fin | ack, {});
    add(Direction::serverToClient, fin | ack, {});
    add(Direction::clientToServer, ack, {});
}

void TCPConversation::reset(Direction from) { add(from, rst | ack, {}); }

std::vector<PlannedSegment> tcpSegments(const std::vector<TLSFlight>& flights, const TCPConversationOptions& options)
{
    TCPConversation conversation(options);
    conversation.open();
    conversation.send(flights);
    conversation.close();
    return std::move(conversation.segments);
}

std::vector<PlannedSegment> merged(std::vector<std::vector<PlannedSegment>> conversations)
{
    std::vector<PlannedSegment> all;
    for (auto& segments : conversations) std::ranges::move(segments, std::back_inserter(all));
    std::ranges::stable_sort(all, {}, &PlannedSegment::time);
    return all;
}

std::vector<PlannedSegment> disturb(std::vector<PlannedSegment>& segments, const Disorder& disorder)
{
    std::mt19937_64 random(disorder.seed);
    std::uniform_real_distribution<double> share(0, 1);
    const auto happens = [&](double part) { return share(random) < part; };
    const auto places = [&] { return std::uniform_int_distribution<std::int64_t>(1, std::max(disorder.reach, 1))(random); };

    // Every segment gets a place in the capture; what comes later gets a later one, and sorting does the rest.
    struct Placed {
        std::int64_t place;
        PlannedSegment segment;
    };
    std::vector<Placed> placed;
    std::vector<PlannedSegment> lost;
    for (std::size_t at = 0; at < segments.size(); ++at) {
        PlannedSegment& segment = segments[at];
        const auto place = static_cast<std::int64_t>(2 * at);
        if (segment.payload.isEmpty() || (segment.flags & syn) != 0) {
            placed.push_back({place, segment});
            continue;
        }
        if (happens(disorder.lost)) {
            lost.push_back(segment);
            continue;
        }
        const std::int64_t own = place + (happens(disorder.reordered) ? 2 * places() + 1 : 0);
        placed.push_back({own, segment});
        if (happens(disorder.retransmitted)) placed.push_back({place + 2 * places() + 1, segment});
        if (happens(disorder.contradicting)) {
            std::vector<std::uint8_t> other(segment.payload.view().begin(), segment.payload.view().end());
            for (std::uint8_t& byte : other) byte = static_cast<std::uint8_t>(~byte);
            PlannedSegment contradiction = segment;
            contradiction.payload = Data(std::move(other));
            placed.push_back({own + 2 * places() + 1, std::move(contradiction)});
        }
        const PlannedSegment* next = at + 1 < segments.size() ? &segments[at + 1] : nullptr;
        const bool touches = next && next->source == segment.source && next->destination == segment.destination &&
                             next->sequenceNumber == segment.sequenceNumber + static_cast<std::uint32_t>(segment.payload.size());
        if (touches && happens(disorder.overlapping)) {
            PlannedSegment overlap = segment;
            const std::int64_t half = segment.payload.size() / 2;
            overlap.sequenceNumber += static_cast<std::uint32_t>(half);
            overlap.payload = joined({segment.payload.sub(half, segment.payload.size()), next->payload.sub(0, next->payload.size() / 2)});
            placed.push_back({place + 2 * places() - 1, std::move(overlap)});
        }
    }
    std::ranges::stable_sort(placed, {}, &Placed::place);

    // Times are those of the places; those that were added share theirs with the place before.
    const std::vector<std::int64_t> times = timesOf(segments);
    segments.clear();
    for (Placed& entry : placed) {
        entry.segment.time = times[std::min(static_cast<std::size_t>(entry.place / 2), times.size() - 1)];
        segments.push_back(std::move(entry.segment));
    }
    return lost;
}

void reverse(std::vector<PlannedSegment>& segments)
{
    const std::vector<std::int64_t> times = timesOf(segments);
    std::ranges::reverse(segments);
    for (std::size_t at = 0; at < segments.size(); ++at) segments[at].time = times[at];
}

}  // namespace sealscope
