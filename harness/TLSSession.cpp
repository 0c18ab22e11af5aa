// SPDX-License-Identifier: Apache-2.0
// Two libssl peers talk over memory: each has a BIO that it reads from and one that it writes to, and what one has
// written is a flight that the other is fed. The flights, in that order, are the wire.
#include "harness/TLSSession.h"

#include "harness/DeterministicRandom.h"
#include "harness/Hex.h"
#include "harness/OpenSSLPointers.h"

#include <array>
#include <fmt/format.h>
#include <openssl/pem.h>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

}  // namespace

class TLSResumption {
public:
    SSLSessionPointer client;
    SSLSessionPointer server;
};

class TLSContexts {
public:
    TLSSessionOptions options;
    SSLContextPointer client;
    SSLContextPointer server;
    std::vector<std::uint8_t> clientProtocolList;
    std::vector<std::uint8_t> serverProtocolList;
};

namespace {

constexpr std::size_t index(Direction direction) { return direction == Direction::clientToServer ? 0 : 1; }

/// A list of protocol names as ALPN has it: each with its length in front (RFC 7301 §3.1).
std::vector<std::uint8_t> protocolList(const std::vector<std::string>& names)
{
    std::vector<std::uint8_t> list;
    for (const std::string& name : names) {
        list.push_back(static_cast<std::uint8_t>(name.size()));
        list.insert(list.end(), name.begin(), name.end());
    }
    return list;
}

void setSuites(SSL_CTX* context, const std::string& suites)
{
    std::string modern;
    std::string older;
    for (std::size_t from = 0; from < suites.size();) {
        const std::size_t to = std::min(suites.find(':', from), suites.size());
        std::string name = suites.substr(from, to - from);
        from = to + 1;
        // Registry names begin with TLS_ in both worlds; those of TLS 1.3 have no "WITH" and are libssl's own.
        if (name.starts_with("TLS_") && name.contains("_WITH_")) name = OPENSSL_cipher_name(name.c_str());
        std::string& list = name.starts_with("TLS_") ? modern : older;
        list += (list.empty() ? "" : ":") + name;
    }
    if (!modern.empty()) check(SSL_CTX_set_ciphersuites(context, modern.c_str()) == 1, "choosing TLS 1.3 suites");
    if (older.empty()) older = "DEFAULT";
    // Level 0 lets old versions, short keys and suites without authentication or encryption be.
    check(SSL_CTX_set_cipher_list(context, (older + ":@SECLEVEL=0").c_str()) == 1, "choosing suites");
}

void useChain(SSL_CTX* context, const CertificateOptions& options)
{
    const auto chain = CertificateChain::make(options);
    const BIOPointer text(BIO_new_mem_buf(chain->privateKeyPEM.data(), static_cast<int>(chain->privateKeyPEM.size())));
    const EVPKeyPointer key(PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, nullptr));
    check(key != nullptr, "reading a key");
    X509* leaf = nullptr;
    for (const Data& der : chain->certificates) {
        const unsigned char* bytes = der.data();
        X509Pointer certificate(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
        check(certificate != nullptr, "reading a certificate");
        if (leaf == nullptr) {
            leaf = certificate.get();
            check(SSL_CTX_use_certificate(context, leaf) == 1 && SSL_CTX_use_PrivateKey(context, key.get()) == 1, "using a certificate");
        } else {
            check(SSL_CTX_add1_chain_cert(context, certificate.get()) == 1, "using a chain");
        }
    }
}

int acceptAnyCertificate(X509_STORE_CTX*, void*) { return 1; }

int chooseProtocol(SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char* offered, unsigned int offeredLength,
                   void* argument)
{
    const auto& list = static_cast<TLSContexts*>(argument)->serverProtocolList;
    if (list.empty()) return SSL_TLSEXT_ERR_NOACK;
    unsigned char* found = nullptr;
    const int result = SSL_select_next_proto(&found, length, list.data(), static_cast<unsigned int>(list.size()), offered, offeredLength);
    *chosen = found;
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

void setCommon(SSL_CTX* context, const TLSSessionOptions& options)
{
    std::uint64_t flags = SSL_OP_ALLOW_CLIENT_RENEGOTIATION;
    if (!options.usesTickets) flags |= SSL_OP_NO_TICKET;
    if (!options.usesEncryptThenMac) flags |= SSL_OP_NO_ENCRYPT_THEN_MAC;
    if (!options.usesExtendedMasterSecret) flags |= SSL_OP_NO_EXTENDED_MASTER_SECRET;
    SSL_CTX_set_options(context, flags);
    if (!options.usesMiddleboxCompatibility) SSL_CTX_clear_options(context, SSL_OP_ENABLE_MIDDLEBOX_COMPAT);
    if (options.maximumFragment != 0)
        check(SSL_CTX_set_max_send_fragment(context, options.maximumFragment) == 1, "choosing the record length");
    if (options.paddingBlock != 0)
        check(SSL_CTX_set_block_padding(context, static_cast<std::size_t>(options.paddingBlock)) == 1, "choosing the padding");
}

/// Moves plaintext handshake messages of a flight into records of another length. Their transcript hash counts messages
/// and not records (RFC 8446 §4.4.1), so that the session goes on as if nothing had been done.
std::vector<std::uint8_t> reframed(std::span<const std::uint8_t> flight, std::size_t recordLength)
{
    constexpr std::uint8_t handshake = 22;
    constexpr std::uint8_t changeCipherSpec = 20;
    std::vector<std::uint8_t> result;
    std::vector<std::uint8_t> messages;
    std::array<std::uint8_t, 2> version{};
    const auto flush = [&] {
        for (std::size_t at = 0; at < messages.size(); at += recordLength) {
            const std::size_t length = std::min(recordLength, messages.size() - at);
            result.insert(result.end(),
                          {handshake, version[0], version[1], static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
            result.insert(result.end(), messages.begin() + static_cast<std::ptrdiff_t>(at),
                          messages.begin() + static_cast<std::ptrdiff_t>(at + length));
        }
        messages.clear();
    };
    std::size_t at = 0;
    while (at + 5 <= flight.size() && flight[at] == handshake) {
        const std::size_t length = static_cast<std::size_t>(flight[at + 3] << 8 | flight[at + 4]);
        version = {flight[at + 1], flight[at + 2]};
        messages.insert(messages.end(), flight.begin() + static_cast<std::ptrdiff_t>(at + 5),
                        flight.begin() + static_cast<std::ptrdiff_t>(at + 5 + length));
        at += 5 + length;
        if (at < flight.size() && flight[at] == changeCipherSpec) break;  // what follows may be encrypted
    }
    flush();
    result.insert(result.end(), flight.begin() + static_cast<std::ptrdiff_t>(at), flight.end());
    return result;
}

}  // namespace

class TLSConversation::Implementation {
public:
    struct Peer {
        SSLPointer ssl;
        BIO* input = nullptr;  ///< owned by `ssl`, as is `output`
        BIO* output = nullptr;
        std::vector<std::uint8_t> sent;  ///< application data
        std::vector<std::uint8_t> received;
        std::int64_t announced = 0;         ///< how much of `sent` earlier flights protect
        bool hasChangedCipherSpec = false;  ///< its records may be encrypted
    };

    Implementation(std::shared_ptr<TLSContexts> contexts, std::uint64_t seed);
    ~Implementation()
    {
        // libssl forgets the session of a connection that was let go without a close.
        for (Peer& side : peers_) SSL_set_shutdown(side.ssl.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    bool handshake();
    void perform(const TLSStep& step);
    void inject(Direction from, Data wire, DataView plaintext);
    void seal(Direction from, DataView payload, std::vector<std::uint8_t>& wire);
    void sealClose(Direction from, std::vector<std::uint8_t>& wire);
    TLSSession session();

private:
    static void keepKeyLogLine(const SSL* ssl, const char* line)
    {
        static_cast<Implementation*>(SSL_get_app_data(ssl))->keyLog_.append(line).append("\n");
    }
    template <bool isServer> static int keepSession(SSL* ssl, SSL_SESSION* session)
    {
        auto* self = static_cast<Implementation*>(SSL_get_app_data(ssl));
        (isServer ? self->serverSession_ : self->clientSession_).reset(session);
        return 1;
    }

    Peer& peer(Direction direction) { return peers_[index(direction)]; }
    const TLSSessionOptions& options() const { return contexts_->options; }
    void connect(Direction direction, SSL_CTX* context);
    bool sendEarlyData();
    bool step(Direction direction);
    bool deliver(Direction direction);
    void pump(Direction first);
    void writeAll(SSL* ssl, DataView payload);
    static void drain(Peer& from, std::vector<std::uint8_t>& wire);

    std::shared_ptr<TLSContexts> contexts_;
    RandomSequence random_;  ///< in use while one of the operations runs, so that conversations may take turns
    std::array<Peer, 2> peers_;
    std::vector<TLSFlight> flights_;
    std::string keyLog_;
    std::string failure_;
    SSLSessionPointer clientSession_;
    SSLSessionPointer serverSession_;
    bool isSealing_ = false;
};

std::shared_ptr<TLSContexts> makeTLSContexts(const TLSSessionOptions& options)
{
    auto contexts = std::make_shared<TLSContexts>();
    contexts->options = options;
    contexts->client.reset(SSL_CTX_new(TLS_client_method()));
    contexts->server.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* client = contexts->client.get();
    SSL_CTX* server = contexts->server.get();
    check(client && server, "making contexts");
    setCommon(client, options);
    setCommon(server, options);

    const int lowest = options.lowestVersion != 0 ? options.lowestVersion : options.version;
    SSL_CTX_set_min_proto_version(client, lowest);
    SSL_CTX_set_max_proto_version(client, options.version);
    SSL_CTX_set_min_proto_version(server, options.serverVersion != 0 ? options.serverVersion : lowest);
    SSL_CTX_set_max_proto_version(server, options.serverVersion != 0 ? options.serverVersion : options.version);

    setSuites(client, options.suites);
    setSuites(server, options.serverSuites.empty() ? options.suites : options.serverSuites);
    const std::string& serverGroups = options.serverGroups.empty() ? options.clientGroups : options.serverGroups;
    check(SSL_CTX_set1_groups_list(client, options.clientGroups.c_str()) == 1, "choosing the client's groups");
    check(SSL_CTX_set1_groups_list(server, serverGroups.c_str()) == 1, "choosing the server's groups");
    SSL_CTX_set_dh_auto(server, 1);

    for (const CertificateOptions& certificate : options.certificates) useChain(server, certificate);
    if (options.clientCertificate) useChain(client, *options.clientCertificate);
    SSL_CTX_set_cert_verify_callback(server, acceptAnyCertificate, nullptr);
    if (options.requiresClientCertificate) SSL_CTX_set_verify(server, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    if (options.allowsPostHandshakeAuthentication) SSL_CTX_set_post_handshake_auth(client, 1);

    contexts->clientProtocolList = protocolList(options.clientProtocols);
    contexts->serverProtocolList = protocolList(options.serverProtocols);
    const auto& protocols = contexts->clientProtocolList;
    if (!protocols.empty())
        check(SSL_CTX_set_alpn_protos(client, protocols.data(), static_cast<unsigned int>(protocols.size())) == 0, "choosing protocols");
    SSL_CTX_set_alpn_select_cb(server, chooseProtocol, contexts.get());

    // Every server has the same ticket keys and session context, so that a session resumes under other contexts too.
    std::array<unsigned char, 80> ticketKeys{};
    for (std::size_t at = 0; at < ticketKeys.size(); ++at) ticketKeys[at] = static_cast<unsigned char>(at);
    check(SSL_CTX_set_tlsext_ticket_keys(server, ticketKeys.data(), ticketKeys.size()) == 1, "choosing ticket keys");
    check(SSL_CTX_set_session_id_context(server, ticketKeys.data(), 8) == 1, "choosing the session context");
    SSL_CTX_set_num_tickets(server, static_cast<std::size_t>(options.tickets));
    SSL_CTX_set_session_cache_mode(client, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    SSL_CTX_set_session_cache_mode(server, SSL_SESS_CACHE_SERVER);
    if (options.negotiatedFragmentCode != 0)
        check(SSL_CTX_set_tlsext_max_fragment_length(client, static_cast<std::uint8_t>(options.negotiatedFragmentCode)) == 1,
              "choosing max_fragment_length");
    SSL_CTX_set_max_early_data(server, options.maximumEarlyData);
    // A server that takes no early data still skips what an eager client sent (RFC 8446 §4.2.10).
    SSL_CTX_set_recv_max_early_data(server, std::max(options.maximumEarlyData, std::uint32_t{SSL3_RT_MAX_PLAIN_LENGTH}));
    SSL_CTX_set_options(server, SSL_OP_NO_ANTI_REPLAY);
    if (options.resume && options.resume->server) {
        const SSLSessionPointer copy(SSL_SESSION_dup(options.resume->server.get()));  // a session is linked into one context only
        SSL_CTX_add_session(server, copy.get());
    }
    return contexts;
}

TLSConversation::Implementation::Implementation(std::shared_ptr<TLSContexts> contexts, std::uint64_t seed)
    : contexts_(std::move(contexts)), random_(seed)
{
    const DeterministicRandom random(random_);
    SSL_CTX_set_keylog_callback(contexts_->client.get(), keepKeyLogLine);
    SSL_CTX_sess_set_new_cb(contexts_->client.get(), keepSession<false>);
    SSL_CTX_sess_set_new_cb(contexts_->server.get(), keepSession<true>);
    connect(Direction::clientToServer, contexts_->client.get());
    connect(Direction::serverToClient, contexts_->server.get());
    SSL* client = peer(Direction::clientToServer).ssl.get();
    SSL_set_connect_state(client);
    SSL_set_accept_state(peer(Direction::serverToClient).ssl.get());
    if (!options().serverName.empty())
        check(SSL_set_tlsext_host_name(client, options().serverName.c_str()) == 1, "choosing the server name");
    if (options().resume) {
        // A copy, because libssl uses a ticket of TLS 1.3 but once.
        const SSLSessionPointer copy(SSL_SESSION_dup(options().resume->client.get()));
        check(SSL_set_session(client, copy.get()) == 1, "resuming");
    }
}

void TLSConversation::Implementation::connect(Direction direction, SSL_CTX* context)
{
    Peer& side = peer(direction);
    side.ssl.reset(SSL_new(context));
    side.input = BIO_new(BIO_s_mem());
    side.output = BIO_new(BIO_s_mem());
    check(side.ssl && side.input && side.output, "making a peer");
    SSL_set_bio(side.ssl.get(), side.input, side.output);
    SSL_set_app_data(side.ssl.get(), this);
}

void TLSConversation::Implementation::drain(Peer& from, std::vector<std::uint8_t>& wire)
{
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(from.output, &bytes);
    wire.insert(wire.end(), bytes, bytes + length);
    check(BIO_reset(from.output) == 1, "emptying a buffer");
}

/// Takes what a peer wrote as a flight to the other; false when it wrote nothing.
bool TLSConversation::Implementation::deliver(Direction direction)
{
    Peer& from = peer(direction);
    std::vector<std::uint8_t> wire;
    drain(from, wire);
    if (wire.empty()) return false;
    if (options().handshakeRecordLength > 0 && !from.hasChangedCipherSpec)
        wire = reframed(wire, static_cast<std::size_t>(options().handshakeRecordLength));
    for (std::size_t at = 0; at + 5 <= wire.size(); at += 5 + static_cast<std::size_t>(wire[at + 3] << 8 | wire[at + 4]))
        if (wire[at] == 20) from.hasChangedCipherSpec = true;
    Peer& to = peer(opposite(direction));
    check(BIO_write(to.input, wire.data(), static_cast<int>(wire.size())) == static_cast<int>(wire.size()), "handing a flight over");
    const auto protectedBytes = static_cast<std::int64_t>(from.sent.size());
    flights_.push_back({direction, Data(std::move(wire)), {from.announced, protectedBytes}});
    from.announced = protectedBytes;
    return true;
}

/// Lets a peer act on what it was fed; false when the session is broken.
bool TLSConversation::Implementation::step(Direction direction)
{
    Peer& side = peer(direction);
    ERR_clear_error();
    std::array<std::uint8_t, 16'384> buffer;
    int result = 0;
    if (!SSL_is_init_finished(side.ssl.get())) result = SSL_do_handshake(side.ssl.get());
    if (SSL_is_init_finished(side.ssl.get())) {
        while ((result = SSL_read(side.ssl.get(), buffer.data(), static_cast<int>(buffer.size()))) > 0)
            side.received.insert(side.received.end(), buffer.data(), buffer.data() + result);
    }
    const int error = SSL_get_error(side.ssl.get(), result);
    if (result > 0 || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_ZERO_RETURN) return true;
    if (failure_.empty()) {
        char reason[256] = "the session broke";
        if (const unsigned long code = ERR_get_error(); code != 0) ERR_error_string_n(code, reason, sizeof reason);
        failure_ = reason;
    }
    ERR_clear_error();
    return false;
}

/// Carries flights to and fro, from what `first` has written, until both peers wait.
void TLSConversation::Implementation::pump(Direction first)
{
    Direction from = first;
    bool isBroken = false;
    for (int idle = 0; idle < 2;) {
        idle = deliver(from) ? 0 : idle + 1;
        from = opposite(from);
        if (isBroken) continue;  // an alert may still be under way
        isBroken = !step(from);
    }
}

bool TLSConversation::Implementation::sendEarlyData()
{
    Peer& client = peer(Direction::clientToServer);
    Peer& server = peer(Direction::serverToClient);
    const Data& payload = options().earlyData;
    std::size_t written = 0;
    const auto length = static_cast<std::size_t>(payload.size());
    check(SSL_write_early_data(client.ssl.get(), payload.data(), length, &written) == 1 && written == length, "sending early data");
    client.sent.assign(payload.view().begin(), payload.view().end());
    deliver(Direction::clientToServer);

    std::array<std::uint8_t, 16'384> buffer;
    for (;;) {
        std::size_t read = 0;
        const int result = SSL_read_early_data(server.ssl.get(), buffer.data(), buffer.size(), &read);
        server.received.insert(server.received.end(), buffer.data(), buffer.data() + read);
        // Waiting for more means that the end of early data, which the client sends with its Finished, is all that is missing.
        if (result == SSL_READ_EARLY_DATA_FINISH) break;
        if (result == SSL_READ_EARLY_DATA_ERROR) {
            if (SSL_get_error(server.ssl.get(), 0) != SSL_ERROR_WANT_READ) return false;
            if (!deliver(Direction::serverToClient) || !step(Direction::clientToServer)) return false;
            deliver(Direction::clientToServer);
        }
    }
    return true;
}

bool TLSConversation::Implementation::handshake()
{
    const DeterministicRandom random(random_);
    if (!options().earlyData.isEmpty() && !sendEarlyData()) throw std::runtime_error("early data got stuck");
    if (step(Direction::clientToServer)) pump(Direction::clientToServer);
    if (SSL_get_early_data_status(peers_[0].ssl.get()) == SSL_EARLY_DATA_REJECTED) {
        // What the server skipped was never said.
        peers_[0].sent.clear();
        peers_[0].announced = 0;
        for (TLSFlight& flight : flights_) flight.plaintext = {};
    }
    const bool isComplete = SSL_is_init_finished(peers_[0].ssl.get()) && SSL_is_init_finished(peers_[1].ssl.get()) && failure_.empty();
    if (!isComplete && failure_.empty()) failure_ = "the handshake stopped";
    return isComplete;
}

void TLSConversation::Implementation::writeAll(SSL* ssl, DataView payload)
{
    std::size_t written = 0;
    const auto length = static_cast<std::size_t>(payload.size());
    check(SSL_write_ex(ssl, payload.data(), length, &written) == 1 && written == length, "sending application data");
}

void TLSConversation::Implementation::perform(const TLSStep& step)
{
    const DeterministicRandom random(random_);
    if (isSealing_) throw std::runtime_error("the peers no longer read each other");
    Peer& from = peer(step.from);
    SSL* ssl = from.ssl.get();
    ERR_clear_error();
    switch (step.action) {
    case TLSStep::Action::send:
        writeAll(ssl, step.payload);
        from.sent.insert(from.sent.end(), step.payload.view().begin(), step.payload.view().end());
        break;
    case TLSStep::Action::updateKey:
    case TLSStep::Action::updateBothKeys:
        check(SSL_key_update(ssl, step.action == TLSStep::Action::updateKey ? SSL_KEY_UPDATE_NOT_REQUESTED : SSL_KEY_UPDATE_REQUESTED) == 1,
              "updating the key");
        check(SSL_do_handshake(ssl) == 1, "sending a key update");
        break;
    case TLSStep::Action::renegotiate:
        check(SSL_renegotiate(ssl) == 1, "renegotiating");
        SSL_do_handshake(ssl);
        break;
    case TLSStep::Action::sendTicket: check(SSL_new_session_ticket(ssl) == 1 && SSL_do_handshake(ssl) == 1, "sending a ticket"); break;
    case TLSStep::Action::requestClientCertificate:
        SSL_set_verify(ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        check(SSL_verify_client_post_handshake(ssl) == 1 && SSL_do_handshake(ssl) == 1, "requesting a certificate");
        break;
    case TLSStep::Action::close: SSL_shutdown(ssl); break;
    }
    pump(step.from);
    if (!failure_.empty()) throw std::runtime_error("the session broke: " + failure_);
}

void TLSConversation::Implementation::inject(Direction from, Data wire, DataView plaintext)
{
    const DeterministicRandom random(random_);
    Peer& side = peer(from);
    side.sent.insert(side.sent.end(), plaintext.begin(), plaintext.end());
    check(BIO_write(side.output, wire.data(), static_cast<int>(wire.size())) == static_cast<int>(wire.size()), "injecting records");
    pump(from);
}

void TLSConversation::Implementation::seal(Direction from, DataView payload, std::vector<std::uint8_t>& wire)
{
    const DeterministicRandom random(random_);
    isSealing_ = true;
    writeAll(peer(from).ssl.get(), payload);
    drain(peer(from), wire);
}

void TLSConversation::Implementation::sealClose(Direction from, std::vector<std::uint8_t>& wire)
{
    const DeterministicRandom random(random_);
    isSealing_ = true;
    SSL_shutdown(peer(from).ssl.get());
    drain(peer(from), wire);
}

TLSSession TLSConversation::Implementation::session()
{
    SSL* client = peers_[0].ssl.get();
    TLSSession session;
    session.flights = flights_;
    session.keyLog = keyLog_;
    session.failure = failure_;
    session.isComplete = failure_.empty() && SSL_is_init_finished(client) != 0;
    if (session.isComplete) {
        session.version = static_cast<std::uint16_t>(SSL_version(client));
        session.cipherSuite = static_cast<std::uint16_t>(SSL_CIPHER_get_protocol_id(SSL_get_current_cipher(client)));
        session.isResumed = SSL_session_reused(client) != 0;
        session.acceptedEarlyData = SSL_get_early_data_status(client) == SSL_EARLY_DATA_ACCEPTED;
        const unsigned char* protocol = nullptr;
        unsigned int length = 0;
        SSL_get0_alpn_selected(client, &protocol, &length);
        session.applicationProtocol.assign(reinterpret_cast<const char*>(protocol), length);
        for (const std::size_t sender : {std::size_t{0}, std::size_t{1}})
            if (peers_[1 - sender].received != peers_[sender].sent) throw std::runtime_error("what arrived is not what was sent");
    }
    session.clientPlaintext = Data(DataView(peers_[0].sent));
    session.serverPlaintext = Data(DataView(peers_[1].sent));
    if (clientSession_) {
        auto resumption = std::make_shared<TLSResumption>();
        resumption->client.reset(SSL_SESSION_dup(clientSession_.get()));
        if (serverSession_) resumption->server.reset(SSL_SESSION_dup(serverSession_.get()));
        session.resumption = std::move(resumption);
    }
    return session;
}

TLSConversation::TLSConversation(std::shared_ptr<TLSContexts> contexts, std::uint64_t seed)
    : implementation_(std::make_unique<Implementation>(std::move(contexts), seed))
{}
TLSConversation::~TLSConversation() = default;
bool TLSConversation::handshake() { return implementation_->handshake(); }
void TLSConversation::perform(const TLSStep& step) { implementation_->perform(step); }
void TLSConversation::inject(Direction from, Data wire, DataView plaintext) { implementation_->inject(from, std::move(wire), plaintext); }
void TLSConversation::seal(Direction from, DataView payload, std::vector<std::uint8_t>& wire)
{
    implementation_->seal(from, payload, wire);
}
void TLSConversation::sealClose(Direction from, std::vector<std::uint8_t>& wire) { implementation_->sealClose(from, wire); }
TLSSession TLSConversation::session() { return implementation_->session(); }

TLSSession runTLS(const TLSSessionOptions& options, const std::vector<TLSStep>& steps)
{
    TLSConversation conversation(options);
    if (conversation.handshake())
        for (const TLSStep& step : steps) conversation.perform(step);
    return conversation.session();
}

Data TLSSession::wire(Direction direction) const
{
    std::vector<Data> pieces;
    for (const TLSFlight& flight : flights)
        if (flight.direction == direction) pieces.push_back(flight.wire);
    return joined(pieces);
}

TLSStep clientSends(Data payload) { return {Direction::clientToServer, TLSStep::Action::send, std::move(payload)}; }
TLSStep serverSends(Data payload) { return {Direction::serverToClient, TLSStep::Action::send, std::move(payload)}; }
TLSStep clientSends(std::string_view text) { return clientSends(Data::fromText(text)); }
TLSStep serverSends(std::string_view text) { return serverSends(Data::fromText(text)); }
TLSStep clientDoes(TLSStep::Action action) { return {Direction::clientToServer, action, {}}; }
TLSStep serverDoes(TLSStep::Action action) { return {Direction::serverToClient, action, {}}; }

std::vector<TLSSuite> availableSuites(std::uint16_t version)
{
    const SSLContextPointer context(SSL_CTX_new(TLS_method()));
    check(context && SSL_CTX_set_cipher_list(context.get(), "ALL:COMPLEMENTOFALL:@SECLEVEL=0") == 1, "listing suites");
    check(
        SSL_CTX_set_ciphersuites(
            context.get(),
            "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256") ==
            1,
        "listing suites");
    SSL_CTX_set_min_proto_version(context.get(), version == TLS1_3_VERSION ? TLS1_3_VERSION : TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), version);
    const SSLPointer ssl(SSL_new(context.get()));
    const OpenSSLPointer<STACK_OF(SSL_CIPHER), [](STACK_OF(SSL_CIPHER) * list) { sk_SSL_CIPHER_free(list); }> ciphers(
        SSL_get1_supported_ciphers(ssl.get()));
    std::vector<TLSSuite> suites;
    for (int at = 0; at < sk_SSL_CIPHER_num(ciphers.get()); ++at) {
        const SSL_CIPHER* cipher = sk_SSL_CIPHER_value(ciphers.get(), at);
        TLSSuite suite{SSL_CIPHER_get_protocol_id(cipher), SSL_CIPHER_get_name(cipher), SSL_CIPHER_standard_name(cipher)};
        // Pre-shared keys and passwords are no matter of certificates, and there are none with DSA keys.
        if (suite.standardName.contains("PSK") || suite.standardName.contains("SRP") || suite.standardName.contains("_DSS_")) continue;
        suites.push_back(std::move(suite));
    }
    return suites;
}

}  // namespace sealscope
