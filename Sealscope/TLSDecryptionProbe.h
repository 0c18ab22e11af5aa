// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSStreamDecryption.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <optional>
#include <vector>

namespace sealscope {

/// The plug-in's decryption probe, with the secrets of `TLSKeyLogStore::shared`. Has no state; any thread may ask.
struct TLSDecryptionProbe final : TLSStreamDecryptionProbing {
    TLSDecryptionOutcome probe(const TCPStream& stream) const override;
    std::optional<TLSDecryptionReport> report(const TCPStream& stream, bool walk) const override;
    std::unique_ptr<PlaintextReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const override;
    TLSKeyMaterialReport keyMaterial() const override;
    bool hasSecrets(DataView clientRandom) const override;
    SecretText keyLogLines(const TCPStream& stream) const override;
    TLSKeyLogLineCount countKeyLogLines(std::string_view text) const override;

    /// Whether the key log has any of the secrets that open application data of the context's version.
    static bool hasKeyMaterial(const TLSStreamDecryption::Context& context);

    /// The decrypted view of a stream; neither member when nothing decrypts.
    struct DecryptedInterpretation {
        std::optional<std::vector<StreamMessage>> messages;
        std::optional<std::vector<Pairing>> pairings;
    };
    /// What the first other interpreter that accepts the plaintext makes of it, marked as decrypted; when none does, a message
    /// a direction.
    static DecryptedInterpretation decryptedInterpretation(const TCPStream& stream);

    using DirectionPlain = TLSStreamDecryption::DirectionPlain;
    /// The plaintext as a stream of the same connection; its bytes are located in the captured packets.
    static TCPStream decryptedStream(const TCPStream& stream, const std::optional<DirectionPlain>& client,
                                     const std::optional<DirectionPlain>& server);
    /// Nothing when neither direction has plaintext.
    static std::optional<std::vector<StreamMessage>> fallbackMessages(const std::optional<DirectionPlain>& client,
                                                                      const std::optional<DirectionPlain>& server);
};

}  // namespace sealscope
