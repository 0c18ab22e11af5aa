// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSRecord.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// Turns a reassembled stream into the ordered messages of the stream view. Stateless; any thread may call it.
struct TLSStreamParser {
    TLSStreamParser() = delete;

    /// How the summaries of encrypted application data begin, and of nothing else.
    static constexpr std::string_view applicationDataPrefix = "Application Data";

    /// One item of the stream view with its sort keys: time, client before server, first byte.
    struct Entry {
        StreamMessage message;
        double timestamp = 0;              ///< seconds since 1970, as in the message
        std::int64_t directionOrder = 0;   ///< 0 for the client's side, 1 for the server's
        std::int64_t firstByteOffset = 0;  ///< in the direction's data
        std::optional<std::uint8_t> handshakeType;
    };

    /// Where one record body lies within the reassembled handshake bytes of a run, and within the direction's data.
    struct HandshakeFragment {
        std::int64_t concatStart = 0;
        std::int64_t streamStart = 0;
        std::int64_t length = 0;
    };

    /// Where a stretch of reassembled handshake bytes lies in the capture.
    struct LocatedSpan {
        std::optional<ByteRange> streamRange;  ///< from the lowest to the highest offset touched, record headers between included
        std::vector<std::int64_t> packetIds;   ///< each once, in the order first met
        std::optional<double> timestamp;       ///< the earliest
    };

    /// All items of one direction, in the order in which they complete.
    static std::vector<Entry> entries(TCPSegment::Direction direction, const TCPStream& stream);
    /// One entry per complete message of an unbroken run of handshake records.
    static std::vector<Entry> handshakeEntries(const std::vector<TLSRecord>& records, const StreamData& data,
                                               TCPSegment::Direction direction, const TCPStream& stream);
    /// One entry for a run of application-data records; nothing for an empty run.
    static std::optional<Entry> applicationDataEntry(const std::vector<TLSRecord>& records, TCPSegment::Direction direction,
                                                     const TCPStream& stream);
    /// Where the bytes `concatRange` of a run lie in the capture.
    static LocatedSpan locateSpan(ByteRange concatRange, const std::vector<HandshakeFragment>& fragments, TCPSegment::Direction direction,
                                  const TCPStream& stream);

    /// Summary and rows of one handshake message; `body` comes without its 4-byte header.
    static std::pair<std::string, std::vector<DetailRow>> handshakeSummary(std::uint8_t type, DataView body, std::int64_t baseOffset);

    /// The first Client Hello with the first Server Hello of a sorted entry list; nothing without a Client Hello.
    static std::optional<std::vector<Pairing>> handshakePairings(const std::vector<Entry>& entries);
    /// Pairings of one message list as pairings of another that holds the same messages; those whose request is not there,
    /// or whose indices lie outside their list, are dropped.
    static std::vector<Pairing> remapPairings(const std::vector<Pairing>& pairings, const std::vector<StreamMessage>& from,
                                              const std::vector<StreamMessage>& into);

    /// The whole stream: both directions in order of time, with decrypted messages in place of encrypted application data
    /// when the stream decrypts.
    static StreamInterpretation interpretation(const TCPStream& stream, const StreamContext& context = {});
    /// The same part by part until `visit` gives false. Holds few of a stream's messages, however many there are. Where decrypted messages
    /// come in several parts, each takes the place that it would have if their times never stepped back.
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit);
};

}  // namespace sealscope
