// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachDescriber.h"

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "interpreters/TLSReach/HandshakeAssembler.h"
#include "interpreters/TLSReach/HelloFingerprints.h"
#include "interpreters/TLSReach/LostBytes.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachMessages.h"
#include "interpreters/TLSReach/ReachProbe.h"
#include "interpreters/TLSReach/ReachWalk.h"
#include "platform/Certificate.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <array>
#include <fmt/chrono.h>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Value = StreamFact::Value;

/// A server hello with this random asks for another client hello, and another follows it (RFC 8446 §4.1.3).
constexpr std::array<std::uint8_t, 32> helloRetryRandom{0xCF, 0x21, 0xAD, 0x74, 0xE5, 0x9A, 0x61, 0x11, 0xBE, 0x1D, 0x8C,
                                                        0x02, 0x1E, 0x65, 0xB8, 0x91, 0xC2, 0xA2, 0x11, 0x16, 0x7A, 0xBB,
                                                        0x8C, 0x5E, 0x07, 0x9E, 0x09, 0xE2, 0xC8, 0xA8, 0x33, 0x9C};

bool asksForAnotherHello(DataView serverHello)
{
    return std::ranges::equal(serverHello.sub(2, 32), DataView(helloRetryRandom.data(), helloRetryRandom.size()));
}

/// Hands over the handshake messages that a direction begins with in the clear, those aside of which bytes were lost, until `visit` gives
/// false.
template <class Visit> void forEachClearMessage(const TCPStream& stream, Direction direction, Visit visit)
{
    const StreamData& data = stream.data(direction);
    const LostBytes lost(stream.data(direction));
    HandshakeAssembler assembler;
    std::vector<AssembledMessage> messages;
    std::vector<std::uint8_t> gathered;
    bool isRetried = false;
    forEachRecord(data, [&](const TLSRecord& record) {
        const auto type = contentTypeOf(record.contentType);
        if (!type || record.majorVersion != 3 || record.isTruncated) return false;
        // One for old middleboxes follows a server hello that asks for another; any other means that keys are in use.
        if (*type == TLSContentType::changeCipherSpec) return isRetried;
        if (*type == TLSContentType::alert) return true;
        if (*type != TLSContentType::handshake) return false;
        assembler.add(data.gather(record.bodyOffset, record.declaredLength, gathered), {record.bodyOffset, record.endOffset()}, messages);
        for (const AssembledMessage& message : std::exchange(messages, {})) {
            if (std::ranges::any_of(message.records, [&](ByteRange range) { return lost.anyOf(range); })) continue;
            if (message.type == std::to_underlying(TLSHandshakeType::serverHello)) isRetried = asksForAnotherHello(message.body);
            if (!isRetried && !visit(message)) return false;
        }
        return true;
    });
}

std::optional<Data> clientHello(const TCPStream& stream)
{
    std::optional<Data> hello;
    forEachClearMessage(stream, Direction::clientToServer, [&](const AssembledMessage& message) {
        if (message.type == std::to_underlying(TLSHandshakeType::clientHello)) hello = message.body;
        return !hello;
    });
    return hello;
}

struct ServerMessages {
    std::optional<Data> hello;
    std::optional<Data> certificate;  ///< the first certificate, as DER
};

void takeCertificate(ServerMessages& server, const AssembledMessage& message, ReachMessages::Form form)
{
    if (server.certificate || message.type != std::to_underlying(TLSHandshakeType::certificate)) return;
    if (const auto chain = ReachMessages::certificates(message.body, form); !chain.empty()) server.certificate = Data(chain.front());
}

ServerMessages clearServerMessages(const TCPStream& stream)
{
    ServerMessages server;
    forEachClearMessage(stream, Direction::serverToClient, [&](const AssembledMessage& message) {
        if (!server.hello && message.type == std::to_underlying(TLSHandshakeType::serverHello)) server.hello = message.body;
        takeCertificate(server, message, ReachMessages::Form::upToTLS12);
        return !server.certificate && message.type != std::to_underlying(TLSHandshakeType::serverHelloDone);
    });
    return server;
}

/// Opens a direction as far as the server's certificate, which no application data precedes.
void openCertificate(ServerMessages& server, const TCPStream& stream, std::shared_ptr<const ReachSecrets> secrets)
{
    ReachConnection connection(stream, std::move(secrets));
    if (!connection.parameters() || !connection.parameters()->isTLS13() || !connection.hasKeyMaterial()) return;
    ReachWalk walk(connection, Direction::serverToClient);
    while (!server.certificate && walk.next() && !walk.isApplicationData())
        for (const AssembledMessage& message : walk.messages()) takeCertificate(server, message, ReachMessages::Form::TLS13);
}

std::string_view shortName(std::string_view type)
{
    constexpr std::array<std::pair<std::string_view, std::string_view>, 10> names{{{"2.5.4.3", "CN"},
                                                                                   {"2.5.4.6", "C"},
                                                                                   {"2.5.4.7", "L"},
                                                                                   {"2.5.4.8", "ST"},
                                                                                   {"2.5.4.9", "STREET"},
                                                                                   {"2.5.4.10", "O"},
                                                                                   {"2.5.4.11", "OU"},
                                                                                   {"0.9.2342.19200300.100.1.1", "UID"},
                                                                                   {"0.9.2342.19200300.100.1.25", "DC"},
                                                                                   {"1.2.840.113549.1.9.1", "emailAddress"}}};
    const auto found = std::ranges::find(names, type, [](const auto& name) { return name.first; });
    return found == names.end() ? type : found->second;
}

/// A name as text (RFC 4514 §2): the last attribute first, characters with a meaning behind a backslash.
std::string nameText(const std::vector<Certificate::Attribute>& name)
{
    std::string text;
    for (auto attribute = name.rbegin(); attribute != name.rend(); ++attribute) {
        if (!attribute->text) continue;
        if (!text.empty()) text += ',';
        text += shortName(attribute->type);
        text += '=';
        const std::string& value = *attribute->text;
        for (std::size_t at = 0; at < value.size(); ++at) {
            const bool isAtAnEnd = at == 0 || at + 1 == value.size();
            const bool isSpecial = std::string_view("\",+;<>\\").contains(value[at]);
            if (isSpecial || (isAtAnEnd && value[at] == ' ') || (at == 0 && value[at] == '#')) text += '\\';
            text += value[at];
        }
    }
    return text;
}

Value timeText(const std::optional<std::chrono::sys_seconds>& time)
{
    if (!time) return {};
    return fmt::format("{:%FT%TZ}", fmt::gmtime(time->time_since_epoch().count()));
}

Value certificateFacts(DataView der)
{
    std::vector<StreamFact> facts{{"sha256", hexText(viewOf(digest(HashFunction::sha256, {der})))}};
    const auto certificate = Certificate::fromDER(der);
    if (certificate) {
        facts.push_back({"subject", nameText(certificate->subject())});
        facts.push_back({"issuer", nameText(certificate->issuer())});
        facts.push_back({"notBefore", timeText(certificate->notBefore())});
        facts.push_back({"notAfter", timeText(certificate->notAfter())});
        facts.push_back({"names", certificate->alternativeNames()});
    } else {
        for (const char* const name : {"subject", "issuer", "notBefore", "notAfter"}) facts.push_back({name, {}});
        facts.push_back({"names", std::vector<std::string>()});
    }
    return facts;
}

template <class Fingerprint> Value fingerprint(const std::optional<Data>& hello, Fingerprint make)
{
    if (hello)
        if (auto text = make(*hello)) return *std::move(text);
    return {};
}

}  // namespace

std::vector<StreamFact> ReachDescriber::facts(const TCPStream& stream,
                                              std::span<const std::shared_ptr<const TLSStreamDecryptionProbing>> probes) const
{
    const std::optional<Data> client = clientHello(stream);
    ServerMessages server = clearServerMessages(stream);
    for (const auto& probe : probes)
        if (const auto* const reach = dynamic_cast<const ReachProbe*>(probe.get()); reach && server.hello && !server.certificate)
            openCertificate(server, stream, reach->secrets());
    return {{"ja3", fingerprint(client, HelloFingerprints::ja3)},
            {"ja3s", fingerprint(server.hello, HelloFingerprints::ja3s)},
            {"ja4", fingerprint(client, HelloFingerprints::ja4)},
            {"certificate", server.certificate ? certificateFacts(*server.certificate) : Value()}};
}

}  // namespace sealscope
