// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLS12RecordDecryptor.h"
#include "Sealscope/TLS13RecordDecryptor.h"
#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSKeyLog.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string_view>
#include <vector>

namespace sealscope {

/// Decrypts whole streams with the secrets of `TLSKeyLogStore::shared`, one direction at a time. Stateless; any thread may
/// call any operation.
struct TLSStreamDecryption {
    TLSStreamDecryption() = delete;

    /// The parameters of one connection.
    struct Context {
        Data clientRandom;  ///< of the first ClientHello
        Data serverRandom;  ///< of the first ServerHello
        std::uint16_t cipherSuite = 0;
        bool isTLS13 = false;
    };

    /// Why a stream has no context.
    enum class ContextFailure : std::uint8_t { noHandshake, unsupportedVersion };

    /// The plaintext of one direction: its application data, and which packets carried them. The bytes of one record lie in one
    /// place, and those of most directions all in one.
    struct DirectionPlain {
        StreamData data;
        ByteToSegmentIndex index;
    };

    static std::expected<Context, ContextFailure> context(const TCPStream& stream);
    /// What the two hellos settle; the client random is not looked at.
    static std::expected<Context, ContextFailure> context(Data clientRandom, const ServerHelloInfo& serverHello);
    /// Whether a key log has any of the secrets that open application data of the context's version.
    static bool hasKeyMaterial(const Context& context, const TLSKeyLog& keyLog);
    // The first hello that lies within one record; one that is spread over records is not found.
    static std::optional<ClientHelloInfo> firstClientHello(const StreamData& clientToServer);
    static std::optional<Data> firstClientRandom(const StreamData& clientToServer);
    static std::optional<ServerHelloInfo> firstServerHello(const StreamData& serverToClient);

    // Nothing when a secret is missing or has no usable length, the suite cannot be opened, or no application data opens.
    static std::optional<DirectionPlain> decryptTLS12(TCPSegment::Direction direction, const TCPStream& stream, const Context& context);
    static std::optional<DirectionPlain> decryptTLS13(TCPSegment::Direction direction, const TCPStream& stream, const Data& clientRandom,
                                                      std::uint16_t cipherSuite);
    /// One of the two, by the context's version, with the secrets of a key log.
    static std::optional<DirectionPlain> decrypt(TCPSegment::Direction direction, const TCPStream& stream, const Context& context,
                                                 const TLSKeyLog& keyLog);
    /// The same, of which no more than the first megabytes are held: what lies behind is opened anew when somebody reads it.
    static std::optional<DirectionPlain> decryptToReadInPieces(TCPSegment::Direction direction, const TCPStream& stream,
                                                               const Context& context, const TLSKeyLog& keyLog);
    /// The opened records of a list one behind another; nothing when they hold no byte. Of TLS 1.3 application data alone.
    static std::optional<DirectionPlain> plainDirection(const std::vector<TLS12DecryptedRecord>& records);
    static std::optional<DirectionPlain> plainDirection(const std::vector<TLS13DecryptedRecord>& records);

    /// A walk that opens a direction's records with the secrets of a key log: what all of the above does it by. Nothing when the
    /// key log lacks the direction's secret or has one of no usable length, or the suite cannot be opened. Outlived by the data.
    static std::optional<TLSDirectionWalk> directionWalk(const StreamData& data, TCPSegment::Direction direction, const Context& context,
                                                         const TLSKeyLog& keyLog);
};

/// The labels of a version's secrets for one direction.
struct TLSSecretLabels {
    std::string_view application;
    std::string_view handshake;  ///< empty for TLS 1.2, which has one secret for all
};
inline constexpr std::string_view masterSecretLabel = "CLIENT_RANDOM";
/// Of TLS 1.3.
TLSSecretLabels secretLabels(TCPSegment::Direction direction);
/// Of the version that was negotiated.
TLSSecretLabels secretLabels(const TLSStreamDecryption::Context& context, TCPSegment::Direction direction);

}  // namespace sealscope
