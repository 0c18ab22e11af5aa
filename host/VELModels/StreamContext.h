// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/DecodingAllowance.h"
#include "host/VELModels/StreamExchange.h"
#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

class StreamHost;

/// What an interpreter's streams are: what programs say to each other, or the protection around it. Decryption probes are
/// asked about streams that an interpreter of a security layer accepts.
enum class StreamLayer : std::uint8_t { application, security };

/// What is known of a stream when it is offered to an interpreter, and how to go on with what it carries.
struct StreamContext {
    /// Streams inside streams end here: TLS in a tunnel in TLS … makes no end of it otherwise.
    static constexpr int deepest = 8;

    bool isDecrypted = false;
    std::optional<std::string> applicationProtocol;  ///< negotiated by TLS (RFC 7301): "h2", "http/1.1"
    std::optional<std::string> serverName;           ///< that the client named (RFC 6066 §3)
    int depth = 0;                                   ///< streams that this one is carried in
    /// Interpreters of this layer are passed over: what was just decrypted is not taken for encrypted bytes again. Nothing for
    /// what lies in a tunnel.
    std::optional<StreamLayer> notOfferedTo;
    /// A body that decodes to more bytes than this ends there, and says so.
    std::int64_t largestDecodedBody = std::int64_t{1} << 30;
    /// What all bodies may decode to together; null where nothing but the above bounds them.
    std::shared_ptr<DecodingAllowance> decodingAllowance;
    /// Bytes of a conversation that may be held, about, while it is told part by part or exchange by exchange.
    std::size_t mostHeld = std::size_t{8} << 20;
    /// What who opened the stream says in front of each message; a reader of exchanges that adds them itself says so.
    std::vector<DetailRow> rowsInFront;
    /// What the application does for the session that the stream belongs to; null outside of one.
    const StreamHost* host = nullptr;
};

/// What an interpreter may ask of the application about a stream in hand. Any thread may ask.
class StreamHost {
public:
    virtual ~StreamHost() = default;

    /// What the session's interpreters make of the bytes that a stream carries under encryption: opened by the probe of the
    /// session that opens most. Nothing when it does not open.
    virtual std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const = 0;

    /// What they make of a stream that another one carries, such as the plaintext of a TLS stream or the inside of a tunnel.
    /// `context` says what is known of the inner stream, its depth included. Nothing when no interpreter accepts it, or
    /// when it lies too deep.
    virtual std::optional<StreamInterpretation> carriedInterpretation(const TCPStream& stream, const StreamContext& context) const = 0;

    /// The same part by part until `visit` gives false; whether there is any of it.
    virtual bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const;
    virtual bool tellCarried(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const;

    /// The exchanges of such an interpretation. Null when no interpreter accepts the stream, or when it lies too deep.
    virtual std::unique_ptr<StreamExchangeReader> carriedExchanges(const TCPStream&, const StreamContext&) const { return nullptr; }

    /// Begins to read such a stream while it goes on, whatever it turns out to be: nothing of it needs to be there yet. Null where nobody
    /// reads it.
    virtual std::unique_ptr<StreamFollowing> followCarried(const StreamContext&) const { return nullptr; }
};

}  // namespace sealscope SEALSCOPE_API
