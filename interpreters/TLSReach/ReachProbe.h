// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDecryptionProbe.h"
#include "interpreters/TLSReach/ReachSecrets.h"

#include <functional>
#include <memory>

namespace sealscope {

/// The decryption probe that opens whatever the secrets at hand can open. Any thread may ask.
class ReachProbe final : public TLSKeyLogProbing {
public:
    /// With the secrets of one session.
    explicit ReachProbe(std::shared_ptr<const KeyLogSources> sources);
    /// With those of the process: the managed key log, and the user's or the environment's.
    ReachProbe();

    std::string_view name() const override { return "TLSReach"; }
    DecryptionReach reach() const override { return DecryptionReach::full; }
    std::shared_ptr<const TLSStreamDecryptionProbing> withSecrets(std::shared_ptr<const KeyLogSources> secrets) const override;
    TLSDecryptionOutcome probe(const TCPStream& stream) const override;
    std::optional<TLSDecryptionReport> report(const TCPStream& stream, ReportDepth depth) const override;
    std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const override;
    bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const override;
    bool tellsExchanges() const override { return true; }
    std::unique_ptr<StreamExchangeReader> decryptedExchanges(const TCPStream& stream, const StreamContext& context) const override;
    /// Lines with session IDs count as well.
    TLSKeyMaterialReport keyMaterial() const override;
    /// Where no key log has any, with the master secret that was found otherwise.
    SecretText keyLogLines(const TCPStream& stream) const override;
    std::unique_ptr<PlaintextReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const override;

    /// The secrets of the session as they are now.
    std::shared_ptr<const ReachSecrets> secrets() const { return secrets_.current(); }

private:
    /// Tells what a plaintext carries; false where nobody knows.
    using TellInner = std::function<bool(const TCPStream&, const StreamContext&, const StreamPartVisitor&)>;
    bool tellOpened(const TCPStream& stream, const StreamContext& context, const TellInner& tellInner,
                    const StreamPartVisitor& visit) const;

    TLSKeyLogStore& store() const override { return store_; }
    mutable TLSKeyLogStore store_;
    mutable ReachSecretStore secrets_;
};

}  // namespace sealscope
