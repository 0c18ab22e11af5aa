// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPSegment.h"
#include "platform/Data.h"
#include "platform/UUID.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// One name/value row shown for a message.
struct DetailRow {
    std::string name;
    std::string value;
    bool operator==(const DetailRow&) const = default;
};

enum class StreamMessageKind : std::uint8_t { data, handshake, request, reply };

/// Encodings that a text body may be in.
enum class TextEncoding : std::uint8_t { utf8, latin1 };

/// How to show a body: as bytes, or as text in an encoding.
struct StreamBodyHint {
    enum class Form : std::uint8_t { binary, text };
    Form form = Form::binary;
    TextEncoding encoding = TextEncoding::utf8;  ///< of the form text
    static constexpr StreamBodyHint binary() { return {}; }
    static constexpr StreamBodyHint text(TextEncoding encoding) { return {Form::text, encoding}; }
    bool operator==(const StreamBodyHint&) const = default;
};

/// One row of the stream view.
class StreamMessage {
public:
    StreamMessage(TCPSegment::Direction messageDirection, StreamMessageKind messageKind, std::string messageSummary,
                  std::vector<DetailRow> messageDetail, std::optional<Data> messageBody, std::optional<StreamBodyHint> messageBodyHint,
                  std::optional<ByteRange> messageByteRange, std::vector<std::int64_t> messagePacketIds, double messageTimestamp,
                  std::optional<std::string> messageFilename, bool messageIsDecrypted)
        : id(UUID::random()), direction(messageDirection), kind(messageKind), summary(std::move(messageSummary)),
          detail(std::move(messageDetail)), body(std::move(messageBody)), bodyHint(messageBodyHint), byteRange(messageByteRange),
          packetIds(std::move(messagePacketIds)), timestamp(messageTimestamp), filename(std::move(messageFilename)),
          isDecrypted(messageIsDecrypted)
    {}

    UUID id;  ///< made with the message and kept by its copies
    TCPSegment::Direction direction;
    StreamMessageKind kind;
    std::string summary;
    std::vector<DetailRow> detail;
    std::optional<Data> body;
    std::optional<StreamBodyHint> bodyHint;
    std::optional<ByteRange> byteRange;  ///< of the direction's data; nothing when the message covers none
    std::vector<std::int64_t> packetIds;
    double timestamp;                     ///< seconds since 1970; 0 when unknown
    std::optional<std::string> filename;  ///< suggested for saving the body
    bool isDecrypted;
};

enum class PairingStatus : std::uint8_t { matched, unmatched };

/// A request and its reply, as positions in one message list.
struct Pairing {
    std::int64_t requestIndex = 0;
    std::optional<std::int64_t> replyIndex;
    std::string summary;
    PairingStatus status = PairingStatus::unmatched;
    bool operator==(const Pairing&) const = default;
};

/// What an interpreter made of one stream. Pairings point into `messages`.
struct StreamInterpretation {
    std::vector<StreamMessage> messages;
    std::optional<std::vector<Pairing>> pairings;
};

}  // namespace sealscope SEALSCOPE_API
