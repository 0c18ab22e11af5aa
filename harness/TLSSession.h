// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/Certificates.h"
#include "host/VELModels/TCPSegment.h"
#include "platform/Data.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// What a peer said at one go: its bytes on the wire, one or more records.
struct TLSFlight {
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    Data wire;
    ByteRange plaintext;  ///< which of the sender's application data it protects, in bytes since the session's start
    bool operator==(const TLSFlight&) const = default;
};

/// Both peers' memory of a session, to resume it (RFC 5246 §7.3, RFC 8446 §2.2).
class TLSResumption;

/// One TLS session as it went.
struct TLSSession {
    std::vector<TLSFlight> flights;  ///< in the order in which they were sent
    Data clientPlaintext;            ///< application data that the client sent, early data included if it was accepted
    Data serverPlaintext;
    std::string keyLog;       ///< lines of the SSLKEYLOGFILE format, as libssl writes them
    bool isComplete = false;  ///< the handshake came to its end
    bool isResumed = false;
    bool acceptedEarlyData = false;
    std::string failure;            ///< why the handshake failed, in libssl's words; empty when it did not
    std::uint16_t version = 0;      ///< negotiated, as on the wire: 0x0304 is TLS 1.3
    std::uint16_t cipherSuite = 0;  ///< negotiated code point
    std::string applicationProtocol;
    std::shared_ptr<const TLSResumption> resumption;  ///< of the last session or ticket; null when there was none

    /// All bytes of one direction.
    Data wire(TCPSegment::Direction direction) const;
    const Data& plaintext(TCPSegment::Direction direction) const
    {
        return direction == TCPSegment::Direction::clientToServer ? clientPlaintext : serverPlaintext;
    }
};

/// How two peers talk. Names of suites, groups and signature algorithms are libssl's; of suites also the registry's.
struct TLSSessionOptions {
    std::uint16_t version = 0x0304;                   ///< the highest that the client offers; 0x0301 is TLS 1.0
    std::uint16_t lowestVersion = 0;                  ///< the lowest that the client offers; 0: the same
    std::uint16_t serverVersion = 0;                  ///< the only one that the server speaks; 0: whatever the client offers
    std::string suites;                               ///< that the client offers, in this order, with ":" between; empty: libssl's own list
    std::string serverSuites;                         ///< that the server accepts; empty: the client's
    std::string clientGroups = "X25519:P-256:P-384";  ///< the first one gets the key share
    std::string serverGroups;                         ///< empty: the client's. Without the client's first: HelloRetryRequest
    std::string serverName = "example.org";           ///< empty: no such extension
    std::vector<std::string> clientProtocols;         ///< for ALPN; empty: no such extension
    std::vector<std::string> serverProtocols;         ///< the server's preference; empty: it ignores ALPN
    std::vector<CertificateOptions> certificates = {{}, {.key = CertificateKey::rsa2048}};  ///< the server's, one a key type
    bool requiresClientCertificate = false;
    std::optional<CertificateOptions> clientCertificate;
    bool allowsPostHandshakeAuthentication = false;  ///< TLS 1.3, see `TLSStep::requestClientCertificate`

    bool usesTickets = true;  ///< false: a TLS 1.2 server gives session identifiers instead
    int tickets = 2;          ///< that a TLS 1.3 server sends after the handshake
    std::shared_ptr<const TLSResumption> resume;
    Data earlyData;                      ///< sent with the hello when a session is resumed (RFC 8446 §2.3)
    std::uint32_t maximumEarlyData = 0;  ///< that the server's tickets allow and the server accepts

    int maximumFragment = 0;                 ///< plaintext bytes a record, 512 to 16384; 0: 16384
    int negotiatedFragmentCode = 0;          ///< max_fragment_length extension, 1 to 4 for 512 to 4096 bytes (RFC 6066 §4)
    int paddingBlock = 0;                    ///< TLS 1.3: every record is padded to a multiple (RFC 8446 §5.4)
    bool usesMiddleboxCompatibility = true;  ///< TLS 1.3: ChangeCipherSpec for old middleboxes (RFC 8446 §D.4)
    bool usesEncryptThenMac = true;          ///< TLS 1.2 block ciphers (RFC 7366)
    bool usesExtendedMasterSecret = true;    ///< RFC 7627
    /// Plaintext handshake messages of a flight are laid end to end and cut into records of at most so many bytes, as some
    /// stacks do; 0: a record each, as libssl does.
    int handshakeRecordLength = 0;
    std::uint64_t seed = 1;  ///< of all random bytes: equal options give equal bytes, as far as no ticket holds the time
};

/// One thing that happens in a session after the handshake.
struct TLSStep {
    enum class Action : std::uint8_t {
        send,                      ///< `payload` as application data
        updateKey,                 ///< KeyUpdate, the peer need not (RFC 8446 §4.6.3)
        updateBothKeys,            ///< KeyUpdate, the peer is asked to
        renegotiate,               ///< a new handshake inside the old one, TLS 1.2 and older (RFC 5246 §7.4.1.1)
        sendTicket,                ///< TLS 1.3, by the server
        requestClientCertificate,  ///< TLS 1.3, by the server (RFC 8446 §4.2.6)
        close,                     ///< close_notify
    };
    TCPSegment::Direction from = TCPSegment::Direction::clientToServer;
    Action action = Action::send;
    Data payload;
};

TLSStep clientSends(std::string_view text);
TLSStep serverSends(std::string_view text);
TLSStep clientSends(Data payload);
TLSStep serverSends(Data payload);
TLSStep clientDoes(TLSStep::Action action);
TLSStep serverDoes(TLSStep::Action action);

/// A handshake, the steps in order, and what came of it. What arrives is compared with what was sent. A failed handshake is
/// a result (steps are left out); misuse and surprises throw std::runtime_error.
TLSSession runTLS(const TLSSessionOptions& options, const std::vector<TLSStep>& steps);

/// Both peers' libssl contexts, made once for many sessions of the same options.
class TLSContexts;
std::shared_ptr<TLSContexts> makeTLSContexts(const TLSSessionOptions& options);

/// A session under way. Used by one thread.
class TLSConversation {
public:
    explicit TLSConversation(const TLSSessionOptions& options) : TLSConversation(makeTLSContexts(options), options.seed) {}
    TLSConversation(std::shared_ptr<TLSContexts> contexts, std::uint64_t seed);
    ~TLSConversation();

    /// False when it failed.
    bool handshake();
    void perform(const TLSStep& step);
    /// Sends records made elsewhere (`TLSRecordSealer`), which carry this plaintext, in the name of a peer; libssl reads them,
    /// but does not count them where it sends: after this, the peer only has more to inject.
    void inject(TCPSegment::Direction from, Data wire, DataView plaintext);
    /// Appends the records that protect application data to `wire`, without the peer reading them. For bulk data: after
    /// this, only `seal` and closing in the same direction make sense.
    void seal(TCPSegment::Direction from, DataView payload, std::vector<std::uint8_t>& wire);
    void sealClose(TCPSegment::Direction from, std::vector<std::uint8_t>& wire);
    /// The session up to here; throws std::runtime_error when what arrived is not what was sent.
    TLSSession session();

    TLSConversation(const TLSConversation&) = delete;
    TLSConversation& operator=(const TLSConversation&) = delete;

private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

/// A suite that libssl offers and that certificates of this harness can serve.
struct TLSSuite {
    std::uint16_t codePoint = 0;
    std::string name;          ///< libssl's
    std::string standardName;  ///< the registry's
};
/// The suites for 0x0303 (TLS 1.2 and what it shares with older versions) or 0x0304.
std::vector<TLSSuite> availableSuites(std::uint16_t version);

}  // namespace sealscope
