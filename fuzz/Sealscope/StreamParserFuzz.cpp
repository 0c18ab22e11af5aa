// SPDX-License-Identifier: Apache-2.0
// A stream's messages. An input is: length of what the client sent (2 bytes, big-endian), bytes a packet (1), what the client
// sent, what the server sent.
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSStreamParser.h"
#include "fuzz/PieceMutator.h"
#include "fuzz/Require.h"
#include "harness/VectorStream.h"
#include "tests/Sealscope/EntriesTwin.h"

#include <algorithm>
#include <iterator>

using namespace sealscope;
using Direction = TCPSegment::Direction;

namespace {

/// The handshake messages of a direction, found the plain way: the bodies of a run laid end to end, then cut.
std::vector<std::uint8_t> plainHandshakeTypes(const Data& bytes)
{
    std::vector<std::uint8_t> types, run;
    const auto flush = [&] {
        for (const TLSHandshakeMessage& message : TLSDissector::parseHandshakeMessages(run, 0))
            if (!message.isTruncated) types.push_back(message.handshakeType);
        run.clear();
    };
    for (const TLSRecord& record : TLSDissector::parseRecords(bytes)) {
        if (record.isTruncated) break;
        const DataView body = bytes.view().sub(record.bodyOffset, record.declaredLength);
        if (record.contentType == 22)
            run.insert(run.end(), body.begin(), body.end());
        else
            flush();
    }
    flush();
    return types;
}

void checkEntries(const std::vector<TLSStreamParser::Entry>& entries, const Data& bytes)
{
    std::vector<std::uint8_t> types;
    std::int64_t end = 0;
    for (const TLSStreamParser::Entry& entry : entries) {
        require(entry.message.byteRange.has_value(), "every item covers bytes of the stream, if only an empty range");
        require(entry.message.byteRange->lower >= end && entry.message.byteRange->upper <= bytes.size(), "items follow each other");
        end = entry.message.byteRange->upper;
        require(entry.message.packetIds.empty() == entry.message.byteRange->isEmpty(), "what covers bytes has packets");
        require(std::ranges::is_sorted(entry.message.packetIds), "in the order of a stream without disorder");
        if (entry.handshakeType) types.push_back(*entry.handshakeType);
    }
    require(types == plainHandshakeTypes(bytes), "the handshake messages are those of the runs laid end to end");
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maximum, unsigned seed)
{
    static const PieceMutator mutator = PieceMutator::records(3);
    return mutator.mutate(data, size, maximum, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView input(data, static_cast<std::int64_t>(size));
    const Data client{input.sub(3, input.u16(0))};
    const Data server{input.from(3 + client.size())};
    const VectorStreamOptions options{.segmentSize = 1 + input.u8(2)};
    const TCPStream stream = vectorStream(client, server, options);
    const TCPStream scattered = vectorStream(client, server, {.segmentSize = options.segmentSize, .isScattered = true});

    checkEntries(TLSStreamParser::entries(Direction::clientToServer, stream), client);
    checkEntries(TLSStreamParser::entries(Direction::serverToClient, stream), server);

    // Every row of zeros as a hole.
    auto parts = streamPieces({{Direction::clientToServer, client, {}}, {Direction::serverToClient, server, {}}}, options);
    parts = withZerosLost(parts, 1 + input.u8(2) % 8);
    const TCPStream plain = vectorStream(parts), holes = vectorStream(parts, StreamLayout::inPieces);
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient})
        require(std::ranges::equal(TLSStreamParser::entries(direction, holes), twin::entries(direction, plain, holes.data(direction)),
                                   twin::isSameEntry),
                "a hole shows what its zeros show, but for messages that nobody sent");

    const StreamInterpretation whole = TLSStreamParser::interpretation(stream);
    const StreamInterpretation pieces = TLSStreamParser::interpretation(scattered);
    require(std::ranges::equal(whole.messages, pieces.messages, twin::isSame), "it does not matter where the bytes lie");
    require(whole.pairings == pieces.pairings, "nor for the pairings");
    StreamInterpretation told;
    TLSStreamParser::forEachPart(stream, {}, [&](StreamPart& part) {
        std::ranges::move(part.messages, std::back_inserter(told.messages));
        if (!part.pairings.empty()) told.pairings = std::move(part.pairings);
        return true;
    });
    require(std::ranges::equal(whole.messages, told.messages, twin::isSame), "parts have the messages of the whole");
    require(whole.pairings == told.pairings, "and its pairings");
    require(std::ranges::is_sorted(whole.messages, {}, &StreamMessage::timestamp), "messages are in order of time");
    require(!whole.pairings || !whole.pairings->empty(), "no pairings are none, not an empty list");
    for (const Pairing& pairing : whole.pairings.value_or(std::vector<Pairing>{})) {
        const auto isMessage = [&](std::int64_t index) { return index >= 0 && index < std::ssize(whole.messages); };
        require(isMessage(pairing.requestIndex) && (!pairing.replyIndex || isMessage(*pairing.replyIndex)), "pairings point at messages");
    }
    return 0;
}
