// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLogStore.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// What the plug-in's decryption probes have in common, whichever secrets they use. Any thread may ask.
class TLSKeyLogProbing : public TLSStreamDecryptionProbing {
public:
    TLSDecryptionOutcome probe(const TCPStream& stream) const override;
    std::shared_ptr<const TLSStreamDecryptionProbing> withSecrets(std::shared_ptr<const KeyLogSources> secrets) const override;
    std::optional<TLSDecryptionReport> report(const TCPStream& stream, ReportDepth depth) const override;
    std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const override;
    bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const override;
    bool tellsExchanges() const override { return true; }
    std::unique_ptr<StreamExchangeReader> decryptedExchanges(const TCPStream& stream, const StreamContext& context) const override;
    std::unique_ptr<PlaintextReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const override;
    TLSKeyMaterialReport keyMaterial() const override;
    bool hasSecrets(DataView clientRandom) const override;
    SecretText keyLogLines(const TCPStream& stream) const override;
    TLSKeyLogLineCount countKeyLogLines(std::string_view text) const override;

private:
    virtual TLSKeyLogStore& store() const = 0;
};

/// The decryption probe of one session, with the secrets of that session alone.
class TLSSessionProbe final : public TLSKeyLogProbing {
public:
    explicit TLSSessionProbe(std::shared_ptr<const KeyLogSources> secrets) : store_(std::move(secrets)) {}

private:
    TLSKeyLogStore& store() const override { return store_; }
    mutable TLSKeyLogStore store_;
};

/// The plug-in's decryption probe, with the secrets of `TLSKeyLogStore::shared`. Has no state.
struct TLSDecryptionProbe final : TLSKeyLogProbing {
    /// Whether the key log has any of the secrets that open application data of the context's version.
    static bool hasKeyMaterial(const TLSStreamDecryption::Context& context);

    using TLSKeyLogProbing::decryptedInterpretation;
    /// The decrypted view of a stream: what the first other interpreter that accepts the plaintext makes of it, marked as
    /// decrypted; when none does, a message a direction. Nothing when nothing decrypts.
    static std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream);

    using DirectionPlain = TLSStreamDecryption::DirectionPlain;
    /// The plaintext as a stream of the same connection; its bytes are located in the captured packets.
    static TCPStream decryptedStream(const TCPStream& stream, const std::optional<DirectionPlain>& client,
                                     const std::optional<DirectionPlain>& server);
    /// Nothing when neither direction has plaintext.
    static std::optional<std::vector<StreamMessage>> fallbackMessages(const std::optional<DirectionPlain>& client,
                                                                      const std::optional<DirectionPlain>& server);

private:
    TLSKeyLogStore& store() const override { return TLSKeyLogStore::shared(); }
};

}  // namespace sealscope
