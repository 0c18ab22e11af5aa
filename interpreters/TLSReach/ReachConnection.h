// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSNames.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "interpreters/TLSReach/HandshakeAssembler.h"
#include "interpreters/TLSReach/ReachSecrets.h"
#include "interpreters/TLSReach/ReachSuite.h"
#include "interpreters/TLSReach/RecordOpener.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

class ReachWalk;

/// What it may take to find that a guess about a connection is wrong.
struct GuessEffort {
    int records = 1;  ///< that are tried
    int trials = 0;   ///< of each
};

/// What the hellos of one handshake settle.
struct HandshakeParameters {
    Data clientRandom;
    Data serverRandom;
    std::uint16_t version = 0;  ///< negotiated: 0x0304, or 0x7f00 and the number of a draft, for TLS 1.3
    std::uint16_t cipherSuite = 0;
    std::optional<ReachSuite> suite;  ///< nothing for one that cannot be opened
    Data sessionID;                   ///< of the server hello
    Data ticket;                      ///< that the client hello offers (RFC 5077 §3.2)
    bool encryptsThenMACs = false;
    bool extendsMasterSecret = false;
    bool compresses = false;
    bool offersEarlyData = false;
    bool isSuiteKnown = false;  ///< to be the peers': the client offers it, or records have opened that show it

    bool isTLS13() const { return version == 0x0304 || version >> 8 == 0x7F; }
    /// Whether the MAC is over the bytes as they are sent, so that records authenticate under other suites of the same MAC as well.
    bool authenticatesBytesSent() const { return encryptsThenMACs || (suite && suite->protection == RecordProtection::none); }
};

/// The handshake messages that a direction begins with in the clear.
struct ClearHandshake {
    std::vector<AssembledMessage> messages;
    bool isOver = false;  ///< whether what comes behind them is there too
};
ClearHandshake clearHandshake(const StreamData& data);

/// The private keys that may belong to the server's certificate.
struct CertificateKeys {
    bool isCertificateKnown = false;  ///< else all of them may
    std::vector<PrivateKey> keys;
};

/// One TLS connection of a stream: what its hellos settle, and the keys that the secrets at hand give. Used by one thread at a time.
class ReachConnection {
public:
    using Direction = TCPSegment::Direction;

    ReachConnection(const TCPStream& stream, std::shared_ptr<const ReachSecrets> secrets);
    ~ReachConnection();
    ReachConnection(const ReachConnection&) = delete;
    ReachConnection& operator=(const ReachConnection&) = delete;

    const TCPStream& stream() const { return stream_; }
    /// The stream by now: what it was, and more behind it.
    void goOn(const TCPStream& stream);
    const ReachSecrets& secrets() const { return *secrets_; }
    const std::shared_ptr<const ReachSecrets>& sharedSecrets() const { return secrets_; }
    /// Of the first handshake; nothing when a hello is missing and nothing that is there makes up for it.
    const std::optional<HandshakeParameters>& parameters() const { return parameters_; }
    const std::optional<ClientHelloInfo>& clientHello() const { return clientHello_; }
    const std::optional<ServerHelloInfo>& serverHello() const { return serverHello_; }
    TLSDecryptionReport::Hello clientHelloState() const { return clientHelloState_; }
    TLSDecryptionReport::Hello serverHelloState() const { return serverHelloState_; }
    /// How whose connection it is was looked for in vain; nothing where that is known, or no secret could be the connection's.
    const std::optional<TLSSecretSearchReport>& search() const { return search_; }
    /// What the private keys at hand are to the connection; nothing where there are none.
    std::optional<TLSPrivateKeyReport> privateKeyReport() const;
    /// The master secret of the first handshake as a line of a key log; empty where it is not known, and for TLS 1.3.
    SecretText keyLogLine() const;
    /// Whether a direction begins with a handshake; else its beginning is missing.
    bool isThereFromTheStart(Direction direction) const;
    /// Whether anything that is needed to open a direction is there.
    bool hasKeyMaterial() const;

    /// A traffic secret of TLS 1.3, by its label.
    std::optional<Data> trafficSecret(std::string_view label) const;
    /// The keys that a direction uses after the ChangeCipherSpec with this number, from 1 on (TLS 1.2 and before). Null when the
    /// handshake or its secret is not there.
    std::unique_ptr<RecordOpener> openerAfterChange(Direction direction, std::int64_t change);
    /// The parameters of that handshake.
    std::optional<HandshakeParameters> handshake(std::int64_t change);

private:
    /// Of a connection's handshakes the first, or one inside its encryption.
    enum class Turn : std::uint8_t { first, further };

    void findHellos();
    void settleWithoutHellos();
    HandshakeParameters supposed(const Data& clientRandom, std::uint16_t suite) const;
    bool isBeforeTLS13WithoutClient() const { return !clientHello_ && serverHello_ && !serverHello_->supportedVersion; }
    std::vector<KeyLogClients::Client> ownClient() const;
    SearchMemory::Outcome search(const std::vector<KeyLogClients::Client>& clients);
    bool opensAs(const HandshakeParameters& parameters, GuessEffort effort, std::int64_t& cost);
    std::string nameOfSearch() const;
    std::optional<SecretBytes> knownMasterSecret(const HandshakeParameters& parameters) const;
    std::optional<SecretBytes> foundMasterSecret(const HandshakeParameters& parameters, Turn turn) const;
    std::optional<SecretBytes> masterSecret(const HandshakeParameters& parameters, Turn turn) const;
    std::optional<SecretBytes> lookForMasterSecret(const HandshakeParameters& parameters, Turn turn) const;
    void rememberSession(const HandshakeParameters& parameters, const SecretBytes& secret) const;
    const AssembledMessage* clearMessage(Direction direction, TLSHandshakeType type) const;
    std::optional<DataView> encryptedPremaster(const HandshakeParameters& parameters) const;
    std::optional<SecretBytes> premasterSecret(const HandshakeParameters& parameters) const;
    std::optional<DataView> serverCertificate() const;
    const CertificateKeys& certificateKeys() const;
    std::optional<std::vector<std::uint8_t>> handshakeUpToKeyExchange() const;
    ReachWalk& scout(Direction direction);

    TCPStream stream_;
    std::shared_ptr<const ReachSecrets> secrets_;
    std::array<std::vector<AssembledMessage>, 2> clearMessages_;  ///< of each direction, up to where encryption begins
    std::array<bool, 2> isClearOver_{};                           ///< whether that was reached
    std::optional<ClientHelloInfo> clientHello_;
    std::optional<ServerHelloInfo> serverHello_;
    TLSDecryptionReport::Hello clientHelloState_ = TLSDecryptionReport::Hello::missing;
    TLSDecryptionReport::Hello serverHelloState_ = TLSDecryptionReport::Hello::missing;
    std::optional<HandshakeParameters> parameters_;
    std::optional<TLSSecretSearchReport> search_;
    std::array<std::unique_ptr<ReachWalk>, 2> scouts_;  ///< look for the hellos of handshakes inside others
    std::array<bool, 2> isScouting_{};
    std::vector<std::optional<HandshakeParameters>> renegotiated_;
    mutable std::optional<std::optional<SecretBytes>> firstMasterSecret_;  ///< once it was looked for
    mutable bool wasKeyExchangeTried_ = true;                              ///< where private keys were to open it
    mutable std::optional<CertificateKeys> certificateKeys_;
};

}  // namespace sealscope
