// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSStreamDecryption.h"

#include <optional>
#include <vector>

namespace sealscope::twin {

/// The plaintext of one direction as the operations on lists give it: every record cut out, every one located, the opened ones
/// joined. What the walk does by and by comes to the same.
inline std::optional<TLSStreamDecryption::DirectionPlain> decrypt(const TCPStream& stream, TCPSegment::Direction direction,
                                                                  const TLSStreamDecryption::Context& context, const TLSKeyLog& keyLog)
{
    const Data bytes = stream.data(direction).whole();
    const auto secret = [&](const char* label) { return keyLog.secret({label, context.clientRandom}); };
    std::vector<TLS12Record> records12;
    std::vector<TLS13CipherRecord> records13;
    for (const TLSRecord& record : TLSDissector::parseRecords(bytes)) {
        if (record.isTruncated) continue;
        const ByteLocation location = stream.locate({record.bodyOffset, record.endOffset()}, direction);
        const Data body = bytes.sub(record.bodyOffset, record.declaredLength);
        const double timestamp = location.timestamp.value_or(0);
        records12.push_back({record.contentType, record.version(), body, location.packetIds, timestamp});
        if (record.contentType == 23) records13.push_back({bytes.sub(record.recordOffset, 5), body, location.packetIds, timestamp});
    }

    if (context.isTLS13) {
        const bool isServer = direction == TCPSegment::Direction::serverToClient;
        const auto applicationSecret = secret(isServer ? "SERVER_TRAFFIC_SECRET_0" : "CLIENT_TRAFFIC_SECRET_0");
        if (!applicationSecret) return std::nullopt;
        const auto handshakeSecret = secret(isServer ? "SERVER_HANDSHAKE_TRAFFIC_SECRET" : "CLIENT_HANDSHAKE_TRAFFIC_SECRET");
        const auto decrypted = TLS13RecordDecryptor::decryptRecords(records13, handshakeSecret, *applicationSecret, context.cipherSuite);
        return decrypted ? TLSStreamDecryption::plainDirection(*decrypted) : std::nullopt;
    }
    const auto masterSecret = secret("CLIENT_RANDOM");
    const auto parameters = TLS12RecordDecryptor::suiteParameters(context.cipherSuite);
    if (!masterSecret || masterSecret->size() != 48 || !parameters) return std::nullopt;
    const auto keys =
        TLS12RecordDecryptor::directionKeys(direction, *parameters, context.clientRandom, context.serverRandom, *masterSecret);
    if (!keys) return std::nullopt;
    return TLSStreamDecryption::plainDirection(TLS12RecordDecryptor::decryptDirection(records12, *keys, parameters->cipher));
}

}  // namespace sealscope::twin
