// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachConnection.h"

#include "Sealscope/TLS12RecordDecryptor.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "interpreters/TLSReach/LostBytes.h"
#include "interpreters/TLSReach/ReachMessages.h"
#include "interpreters/TLSReach/ReachWalk.h"

#include <algorithm>
#include <array>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Hello = TLSDecryptionReport::Hello;

constexpr std::int64_t masterSecretLength = 48;  // RFC 5246 §8.1
constexpr std::uint16_t ssl3 = 0x0300, tls12 = 0x0303;

// Extensions of hellos (RFC 7366 §2, RFC 7627 §5.1, RFC 5077 §3.2, RFC 8446 §4.2.10).
constexpr std::uint16_t encryptThenMAC = 22, extendedMasterSecret = 23, sessionTicket = 35, earlyData = 42;

std::size_t indexOf(Direction direction) { return direction == Direction::serverToClient ? 1 : 0; }

bool hasExtension(const std::vector<TLSExtension>& extensions, std::uint16_t type)
{
    return std::ranges::find(extensions, type, &TLSExtension::extType) != extensions.end();
}

Data sessionIDOf(DataView helloBody)
{
    constexpr std::int64_t lengthAt = 34;
    return Data(helloBody.sub(lengthAt + 1, helloBody.u8(lengthAt)));
}

/// A server hello of drafts 18 to 21 has neither session ID nor compression method: version, random, suite, extensions.
std::optional<ServerHelloInfo> parseEarlyDraft(DataView body, std::int64_t baseOffset)
{
    if (body.size() < 38 || body.u8(0) != 0x7F) return std::nullopt;
    return ServerHelloInfo{.legacyVersion = body.u16(0),
                           .serverRandom = Data(body.sub(2, 32)),
                           .cipherSuite = body.u16(34),
                           .supportedVersion = body.u16(0),
                           .extensions = TLSDissector::parseExtensions(body.from(36), baseOffset + 36),
                           .cipherSuiteOffset = 34};
}

std::optional<ServerHelloInfo> parseServerHello(DataView body, std::int64_t baseOffset)
{
    if (auto draft = parseEarlyDraft(body, baseOffset)) return draft;
    return TLSDissector::parseServerHello(body, baseOffset);
}

HandshakeParameters parametersOf(const ClientHelloInfo& client, DataView clientBody, const ServerHelloInfo& server, DataView serverBody)
{
    HandshakeParameters parameters{.clientRandom = client.clientRandom,
                                   .serverRandom = server.serverRandom,
                                   .version = server.supportedVersion.value_or(server.legacyVersion),
                                   .cipherSuite = server.cipherSuite,
                                   .suite = ReachSuite::of(server.cipherSuite),
                                   .encryptsThenMACs = hasExtension(server.extensions, encryptThenMAC),
                                   .extendsMasterSecret = hasExtension(server.extensions, extendedMasterSecret),
                                   .offersEarlyData = hasExtension(client.extensions, earlyData)};
    // A suite of one kind of version says nothing under the other.
    if (parameters.suite && parameters.suite->isTLS13 != parameters.isTLS13()) parameters.suite.reset();
    if (parameters.isTLS13()) return parameters;
    if (parameters.version < ssl3 || parameters.version > tls12) parameters.suite.reset();
    parameters.isSuiteKnown = std::ranges::find(client.cipherSuites, server.cipherSuite) != client.cipherSuites.end();
    parameters.sessionID = sessionIDOf(serverBody);
    const auto ticket = std::ranges::find(client.extensions, sessionTicket, &TLSExtension::extType);
    if (ticket != client.extensions.end()) parameters.ticket = Data(clientBody.sub(ticket->bodyOffset, ticket->length));
    parameters.compresses = serverBody.u8(server.cipherSuiteOffset + 2) != 0;
    return parameters;
}

SecretBytes prf(std::uint16_t version, HashFunction hash, DataView secret, std::string_view label, std::initializer_list<DataView> seeds,
                std::size_t length)
{
    std::vector<std::uint8_t> seed(label.begin(), label.end());
    for (const DataView part : seeds) seed.insert(seed.end(), part.begin(), part.end());
    if (version == tls12) return TLS12RecordDecryptor::pHash(hash, secret, seed, length);
    // RFC 2246 §5: halves of the secret, which share a byte where its length is odd, under two hashes.
    const std::int64_t half = (secret.size() + 1) / 2;
    SecretBytes output = TLS12RecordDecryptor::pHash(HashFunction::md5, secret.sub(0, half), seed, length);
    const SecretBytes other = TLS12RecordDecryptor::pHash(HashFunction::sha1, secret.from(secret.size() - half), seed, length);
    std::ranges::transform(output, other, output.begin(), std::bit_xor());
    return output;
}

/// Key material of SSL 3.0 (RFC 6101 §6.1, §6.2.2): MD5 of the secret and SHA-1 of "A", "BB", "CCC" …, secret and randoms.
SecretBytes ssl3Expand(DataView secret, DataView firstRandom, DataView secondRandom, std::size_t length)
{
    SecretBytes output;
    for (std::size_t i = 0; output.size() < length && i < 26; ++i) {
        const std::vector<std::uint8_t> letters(i + 1, static_cast<std::uint8_t>('A' + i));
        const SecretBytes inner = digest(HashFunction::sha1, {letters, secret, firstRandom, secondRandom});
        const SecretBytes block = digest(HashFunction::md5, {secret, viewOf(inner)});
        output.insert(output.end(), block.begin(), block.end());
    }
    output.resize(length);
    return output;
}

RecordKeys keysOf(Direction direction, const HandshakeParameters& parameters, DataView masterSecret)
{
    const ReachSuite& suite = *parameters.suite;
    const std::int64_t macLength = suite.isAEAD() ? 0 : digestSize(suite.mac);
    // From TLS 1.1 on a record of blocks carries its own IV (RFC 4346 §6.2.3.2).
    const bool hasChainedIV = suite.protection == RecordProtection::cbc && parameters.version <= 0x0301;
    const std::int64_t ivLength = suite.isAEAD() ? suite.fixedIVLength() : hasChainedIV ? blockSize(suite.bulk) : 0;
    const auto length = static_cast<std::size_t>(2 * (macLength + suite.keyLength + ivLength));
    const SecretBytes bytes =
        parameters.version == ssl3
            ? ssl3Expand(masterSecret, parameters.serverRandom, parameters.clientRandom, length)
            : prf(parameters.version, suite.prf, masterSecret, "key expansion", {parameters.serverRandom, parameters.clientRandom}, length);
    // RFC 5246 §6.3: both MAC keys, both write keys, both IVs, the client's first.
    std::int64_t at = 0;
    const auto take = [&](std::int64_t size) {
        const DataView part = viewOf(bytes).sub(at + static_cast<std::int64_t>(indexOf(direction)) * size, size);
        at += 2 * size;
        return SecretBytes(part.begin(), part.end());
    };
    RecordKeys keys;
    keys.macKey = take(macLength);
    keys.key = take(suite.keyLength);
    keys.iv = take(ivLength);
    return keys;
}

}  // namespace

ClearHandshake clearHandshake(const StreamData& data)
{
    constexpr std::size_t mostMessages = 1'000;  // a handshake has a dozen
    constexpr std::size_t mostBytes = 4 << 20;
    std::size_t bytes = 0;
    ClearHandshake found;
    std::vector<AssembledMessage>& messages = found.messages;
    HandshakeAssembler assembler;
    std::vector<std::uint8_t> gathered;
    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.isTruncated) return false;
        const auto type = contentTypeOf(record.contentType);
        if (type == TLSContentType::alert && record.majorVersion == 3) return true;
        found.isOver = type != TLSContentType::handshake || record.majorVersion != 3;
        if (found.isOver) return false;
        const std::ptrdiff_t before = std::ssize(messages);
        assembler.add(data.gather(record.bodyOffset, record.declaredLength, gathered), {record.bodyOffset, record.endOffset()}, messages);
        // A Hello Request belongs to no handshake (RFC 5246 §7.4.1.1), and lost bytes read as a crowd of them.
        const auto isHelloRequest = [](const AssembledMessage& message) { return message.type == 0 && message.body.isEmpty(); };
        messages.erase(std::remove_if(messages.begin() + before, messages.end(), isHelloRequest), messages.end());
        for (auto message = messages.begin() + before; message != messages.end(); ++message)
            bytes += static_cast<std::size_t>(message->body.size()) + message->records.size() * sizeof(ByteRange);
        found.isOver = messages.size() >= mostMessages || bytes > mostBytes;
        return !found.isOver;
    });
    return found;
}

ReachConnection::~ReachConnection() = default;

ReachConnection::ReachConnection(const TCPStream& stream, std::shared_ptr<const ReachSecrets> secrets)
    : stream_(stream), secrets_(std::move(secrets))
{
    findHellos();
}

void ReachConnection::findHellos()
{
    const auto state = [](const StreamData& data, const AssembledMessage* message, const AssembledMessage* whole) {
        if (whole) return Hello::found;
        if (message) return Hello::cutByData;
        const bool begins = TLSDissector::looksLikeTLS(data) && data.stretch(0).u8(0) == std::to_underlying(TLSContentType::handshake);
        return begins ? Hello::cutByData : Hello::missing;
    };
    const AssembledMessage* hellos[2] = {};
    const AssembledMessage* whole[2] = {};
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        const std::size_t index = indexOf(direction);
        ClearHandshake handshake = clearHandshake(stream_.data(direction));
        clearMessages_[index] = std::move(handshake.messages);
        isClearOver_[index] = handshake.isOver;
        const auto type = std::to_underlying(index == 0 ? TLSHandshakeType::clientHello : TLSHandshakeType::serverHello);
        const auto found = std::ranges::find(clearMessages_[index], type, &AssembledMessage::type);
        if (found == clearMessages_[index].end()) continue;
        hellos[index] = &*found;
        // Version and random stand in front; what is lost behind them does less harm.
        constexpr std::int64_t upToRandom = 4 + 2 + 32;
        const std::int64_t start = found->records.front().lower;
        const ByteRange needed{start, std::min(start + upToRandom, found->records.front().upper)};
        if (!LostBytes(stream_.data(direction)).anyOf(needed)) whole[index] = hellos[index];
    }
    clientHelloState_ = state(stream_.clientToServerData, hellos[0], whole[0]);
    serverHelloState_ = state(stream_.serverToClientData, hellos[1], whole[1]);
    if (whole[0]) clientHello_ = TLSDissector::parseClientHello(whole[0]->body, 0);
    if (whole[1]) serverHello_ = parseServerHello(whole[1]->body, 0);
    if (clientHello_) secrets_->searches->meet(stream_.key.number, clientHello_->clientRandom);
    if (clientHello_ && serverHello_)
        parameters_ = parametersOf(*clientHello_, hellos[0]->body, *serverHello_, hellos[1]->body);
    else
        settleWithoutHellos();
}

/// What the hellos would say, were the connection this client's.
HandshakeParameters ReachConnection::supposed(const Data& clientRandom, std::uint16_t suite) const
{
    if (isBeforeTLS13WithoutClient())
        return parametersOf({.clientRandom = clientRandom}, {}, *serverHello_,
                            clearMessage(Direction::serverToClient, TLSHandshakeType::serverHello)->body);
    return {.clientRandom = clientRandom, .version = 0x0304, .cipherSuite = suite, .suite = ReachSuite::of(suite)};
}

bool ReachConnection::isThereFromTheStart(Direction direction) const { return !clearMessages_[indexOf(direction)].empty(); }

bool ReachConnection::hasKeyMaterial() const
{
    if (!parameters_) return false;
    if (!parameters_->isTLS13()) return parameters_->suite && masterSecret(*parameters_, Turn::first).has_value();
    return trafficSecret("CLIENT_TRAFFIC_SECRET_0") || trafficSecret("SERVER_TRAFFIC_SECRET_0");
}

std::optional<Data> ReachConnection::trafficSecret(std::string_view label) const
{
    return secrets_->keyLog.secrets.find(label, parameters_->clientRandom);
}

std::optional<SecretBytes> ReachConnection::knownMasterSecret(const HandshakeParameters& parameters) const
{
    const auto logged = secrets_->keyLog.secrets.find("CLIENT_RANDOM", parameters.clientRandom);
    if (logged && logged->size() == masterSecretLength) return SecretBytes(logged->view().begin(), logged->view().end());
    const DataView id = parameters.sessionID;
    if (const auto session = secrets_->sessions.find({id.begin(), id.end()}); session != secrets_->sessions.end())
        if (std::ssize(session->second) == masterSecretLength) return session->second;
    return std::nullopt;
}

std::optional<SecretBytes> ReachConnection::masterSecret(const HandshakeParameters& parameters, Turn turn) const
{
    // While nothing settles whose connection it is, one client after another is tried.
    if (turn != Turn::first || !clientHello_) return lookForMasterSecret(parameters, turn);
    if (!firstMasterSecret_) firstMasterSecret_ = lookForMasterSecret(parameters, turn);
    return *firstMasterSecret_;
}

std::optional<SecretBytes> ReachConnection::lookForMasterSecret(const HandshakeParameters& parameters, Turn turn) const
{
    const auto found = foundMasterSecret(parameters, turn);
    if (!found) {
        // A session that is resumed has no certificate and no key exchange of its own.
        if (turn != Turn::first || !isClearOver_[indexOf(Direction::serverToClient)]) return std::nullopt;
        if (clearMessage(Direction::serverToClient, TLSHandshakeType::serverHelloDone)) return std::nullopt;
        if (const auto byID = secrets_->memory->recall(parameters.sessionID)) return byID;
        return secrets_->memory->recall(parameters.ticket);
    }
    if (turn == Turn::first) rememberSession(parameters, *found);
    return found;
}

void ReachConnection::rememberSession(const HandshakeParameters& parameters, const SecretBytes& secret) const
{
    secrets_->memory->remember(parameters.sessionID, secret);
    constexpr std::int64_t ticketAt = 6;  // behind lifetime and length (RFC 5077 §3.3)
    if (const auto* const message = clearMessage(Direction::serverToClient, TLSHandshakeType::newSessionTicket))
        secrets_->memory->remember(message->body.view().from(ticketAt), secret);
}

void ReachConnection::goOn(const TCPStream& stream)
{
    stream_ = stream;
    const std::size_t server = indexOf(Direction::serverToClient);
    if (isClearOver_[server]) return;
    // A ticket is the last that the server says in the clear.
    ClearHandshake handshake = clearHandshake(stream_.serverToClientData);
    clearMessages_[server] = std::move(handshake.messages);
    isClearOver_[server] = handshake.isOver;
    if (parameters_ && firstMasterSecret_ && *firstMasterSecret_) rememberSession(*parameters_, **firstMasterSecret_);
}

const AssembledMessage* ReachConnection::clearMessage(Direction direction, TLSHandshakeType type) const
{
    const auto& messages = clearMessages_[indexOf(direction)];
    const auto found = std::ranges::find(messages, std::to_underlying(type), &AssembledMessage::type);
    return found == messages.end() ? nullptr : &*found;
}

std::optional<SecretBytes> ReachConnection::foundMasterSecret(const HandshakeParameters& parameters, Turn turn) const
{
    if (auto known = knownMasterSecret(parameters)) return known;
    if (turn != Turn::first) return std::nullopt;
    const auto premaster = premasterSecret(parameters);
    if (!premaster) return std::nullopt;
    if (parameters.version == ssl3)
        return ssl3Expand(viewOf(*premaster), parameters.clientRandom, parameters.serverRandom, masterSecretLength);
    const HashFunction hash = parameters.suite->prf;
    if (!parameters.extendsMasterSecret)
        return prf(parameters.version, hash, viewOf(*premaster), "master secret", {parameters.clientRandom, parameters.serverRandom},
                   masterSecretLength);
    // RFC 7627 §3, §4: the hash of all messages up to the client's key exchange stands in place of the randoms.
    const auto messages = handshakeUpToKeyExchange();
    if (!messages) return std::nullopt;
    SecretBytes sessionHash;
    if (parameters.version == tls12) {
        sessionHash = digest(hash, {DataView(*messages)});
    } else {
        sessionHash = digest(HashFunction::md5, {DataView(*messages)});
        const SecretBytes second = digest(HashFunction::sha1, {DataView(*messages)});
        sessionHash.insert(sessionHash.end(), second.begin(), second.end());
    }
    return prf(parameters.version, hash, viewOf(*premaster), "extended master secret", {viewOf(sessionHash)}, masterSecretLength);
}

std::optional<DataView> ReachConnection::encryptedPremaster(const HandshakeParameters& parameters) const
{
    const auto* const exchange = clearMessage(Direction::clientToServer, TLSHandshakeType::clientKeyExchange);
    if (!exchange || !parameters.suite || !parameters.suite->isRSAKeyExchange) return std::nullopt;
    // SSL 3.0 sends the encrypted secret without its length (RFC 5246 §7.4.7.1).
    return exchange->body.view().from(parameters.version == ssl3 ? 0 : 2);
}

std::optional<SecretBytes> ReachConnection::premasterSecret(const HandshakeParameters& parameters) const
{
    const TLSSecrets& known = secrets_->keyLog.secrets;
    const auto copied = [](DataView bytes) { return SecretBytes(bytes.begin(), bytes.end()); };
    if (const auto logged = known.find("PMS_CLIENT_RANDOM", parameters.clientRandom)) return copied(*logged);
    const auto encrypted = encryptedPremaster(parameters);
    if (!encrypted) return std::nullopt;
    constexpr std::int64_t shownBytes = 8;  // of the encrypted secret, in lines "RSA"
    if (const auto logged = known.find("RSA", encrypted->sub(0, shownBytes))) return copied(*logged);
    const auto& keys = certificateKeys().keys;
    if (keys.empty()) return std::nullopt;
    auto outcome = secrets_->keyExchanges->open(*encrypted, keys);
    wasKeyExchangeTried_ = outcome.isTried;
    return std::move(outcome.premasterSecret);
}

const CertificateKeys& ReachConnection::certificateKeys() const
{
    if (certificateKeys_) return *certificateKeys_;
    auto& [isKnown, keys] = certificateKeys_.emplace();
    const auto certificate = serverCertificate();
    isKnown = certificate.has_value();
    for (const PrivateKey& key : secrets_->privateKeys)
        if (!isKnown || key.isOf(*certificate)) keys.push_back(key);
    return *certificateKeys_;
}

std::optional<DataView> ReachConnection::serverCertificate() const
{
    const auto* const message = clearMessage(Direction::serverToClient, TLSHandshakeType::certificate);
    if (!message) return std::nullopt;
    const LostBytes lost(stream_.serverToClientData);
    if (std::ranges::any_of(message->records, [&](ByteRange record) { return lost.anyOf(record); })) return std::nullopt;
    const std::vector<DataView> chain = ReachMessages::certificates(message->body, ReachMessages::Form::upToTLS12);
    return chain.empty() ? std::nullopt : std::optional(chain.front());
}

std::optional<TLSPrivateKeyReport> ReachConnection::privateKeyReport() const
{
    using Use = TLSPrivateKeyReport::Use;
    if (!parameters_ || !parameters_->suite || secrets_->privateKeys.empty()) return std::nullopt;
    if (!parameters_->suite->isRSAKeyExchange) return TLSPrivateKeyReport{Use::otherKeyExchange, {}};
    if (!encryptedPremaster(*parameters_)) return TLSPrivateKeyReport{Use::noKeyExchange, {}};
    const auto certificate = serverCertificate();
    constexpr std::int64_t longestNamed = 16'384;  // another is not worth its time
    const bool isNamed = certificate && certificate->size() <= longestNamed;
    const auto summary = isNamed ? TLSDissector::certSummary(*certificate) : std::nullopt;
    const bool hasSecret = hasKeyMaterial();
    const bool fits = certificateKeys().isCertificateKnown ? !certificateKeys().keys.empty() : hasSecret;
    const Use use = !hasSecret && !wasKeyExchangeTried_ ? Use::notTried : fits ? Use::fits : Use::otherCertificate;
    return TLSPrivateKeyReport{use, summary ? summary->subjectCN.value_or("") : ""};
}

SecretText ReachConnection::keyLogLine() const
{
    if (!parameters_ || parameters_->isTLS13() || !parameters_->suite) return {};
    const auto secret = masterSecret(*parameters_, Turn::first);
    if (!secret) return {};
    SecretText line("CLIENT_RANDOM ");
    const auto append = [&](DataView bytes) {
        for (const std::uint8_t byte : bytes) {
            line += "0123456789abcdef"[byte >> 4];
            line += "0123456789abcdef"[byte & 15];
        }
    };
    append(parameters_->clientRandom);
    line += ' ';
    append(viewOf(*secret));
    line += '\n';
    return line;
}

/// The messages of both sides up to the client's key exchange, headers included, in the order in which they were sent.
std::optional<std::vector<std::uint8_t>> ReachConnection::handshakeUpToKeyExchange() const
{
    std::vector<std::uint8_t> bytes;
    const auto add = [&](const AssembledMessage& message) {
        const std::int64_t length = message.body.size();
        bytes.insert(bytes.end(), {message.type, static_cast<std::uint8_t>(length >> 16), static_cast<std::uint8_t>(length >> 8),
                                   static_cast<std::uint8_t>(length)});
        bytes.insert(bytes.end(), message.body.view().begin(), message.body.view().end());
    };
    const auto& client = clearMessages_[0];
    const auto& server = clearMessages_[1];
    if (client.empty() || client.front().type != std::to_underlying(TLSHandshakeType::clientHello)) return std::nullopt;
    add(client.front());
    for (const AssembledMessage& message : server) {
        if (message.type == std::to_underlying(TLSHandshakeType::newSessionTicket)) break;
        if (message.type != 0) add(message);  // 0 is a Hello Request, which does not count (RFC 5246 §7.4.1.1)
    }
    for (auto message = client.begin() + 1; message != client.end(); ++message) {
        add(*message);
        if (message->type == std::to_underlying(TLSHandshakeType::clientKeyExchange)) return bytes;
    }
    return std::nullopt;
}

std::unique_ptr<RecordOpener> ReachConnection::openerAfterChange(Direction direction, std::int64_t change)
{
    const auto parameters = handshake(change);
    if (!parameters || !parameters->suite) return nullptr;
    const auto secret = masterSecret(*parameters, change == 1 ? Turn::first : Turn::further);
    if (!secret) return nullptr;
    auto opener =
        makeRecordOpener(*parameters->suite, parameters->version, parameters->encryptsThenMACs ? MACPlace::behind : MACPlace::inside,
                         keysOf(direction, *parameters, viewOf(*secret)));
    if (!parameters->compresses) return opener;
    return inflating(std::move(opener), [secrets = secrets_](std::int64_t bytes) { return secrets->inflation->take(bytes); });
}

ReachWalk& ReachConnection::scout(Direction direction)
{
    auto& walk = scouts_[indexOf(direction)];
    if (!walk) walk = std::make_unique<ReachWalk>(*this, direction);
    return *walk;
}

std::optional<HandshakeParameters> ReachConnection::handshake(std::int64_t change)
{
    if (change <= 1) return parameters_;
    const auto wanted = static_cast<std::size_t>(change - 1);
    if (wanted <= renegotiated_.size()) return renegotiated_[wanted - 1];
    // Both hellos stand in front of their side's ChangeCipherSpec, so what it takes to read them is always known before.
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        ReachWalk& walk = scout(direction);
        bool& isScouting = isScouting_[indexOf(direction)];
        if (walk.innerHellos().size() >= wanted) continue;
        if (isScouting) return std::nullopt;
        isScouting = true;
        while (walk.innerHellos().size() < wanted && walk.next()) {}
        isScouting = false;
        if (walk.innerHellos().size() < wanted) return std::nullopt;
    }
    const AssembledMessage& clientMessage = scout(Direction::clientToServer).innerHellos()[wanted - 1];
    const AssembledMessage& serverMessage = scout(Direction::serverToClient).innerHellos()[wanted - 1];
    const auto client = TLSDissector::parseClientHello(clientMessage.body, 0);
    const auto server = parseServerHello(serverMessage.body, 0);
    while (renegotiated_.size() < wanted) renegotiated_.emplace_back();
    if (client && server) renegotiated_[wanted - 1] = parametersOf(*client, clientMessage.body, *server, serverMessage.body);
    return renegotiated_[wanted - 1];
}

}  // namespace sealscope
