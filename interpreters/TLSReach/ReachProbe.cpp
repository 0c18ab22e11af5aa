// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachProbe.h"

#include "Sealscope/TLSApplicationProtocol.h"
#include "Sealscope/TLSDecryptedMessages.h"
#include "Sealscope/TLSNames.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachMessages.h"
#include "interpreters/TLSReach/ReachPlaintext.h"
#include "interpreters/TLSReach/ReachTally.h"
#include "interpreters/TLSReach/ReachWalk.h"
#include "platform/SideBySide.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

/// Owns what the walk borrows.
class ReachReader final : public PlaintextReader {
public:
    ReachReader(std::unique_ptr<ReachConnection> connection, Direction direction)
        : connection_(std::move(connection)), direction_(direction), walk_(*connection_, direction)
    {}
    bool hasKeys() const { return walk_.hasKeys(); }

    std::optional<PlaintextRecord> next(std::span<std::uint8_t> room) override
    {
        while (walk_.next(room.data())) {
            tally_.take(walk_);
            if (const auto& gap = walk_.gap()) takeGap(*gap);
            if (walk_.isApplicationData())
                return PlaintextRecord{
                    walk_.content(), {walk_.record().bodyOffset, walk_.record().endOffset()}, std::exchange(gap_, std::nullopt)};
        }
        return std::nullopt;
    }
    bool goOn(const TCPStream& stream) override
    {
        connection_->goOn(stream);
        walk_.goOn();
        return true;
    }
    std::optional<TLSDirectionReport> report() override { return tally_.report(walk_, *connection_, direction_); }

private:
    /// Records that hold no application data may stand between two gaps.
    void takeGap(const PlaintextGap& gap)
    {
        if (!gap_) {
            gap_ = gap;
            return;
        }
        gap_->range.upper = gap.range.upper;
        gap_->records += gap.records;
        gap_->contentLength += gap.contentLength;
        gap_->isExact = gap_->isExact && gap.isExact;
        gap_->isLost = gap_->isLost || gap.isLost;
    }

    std::unique_ptr<ReachConnection> connection_;
    Direction direction_;
    ReachWalk walk_;
    ReachTally tally_;
    std::optional<PlaintextGap> gap_;  ///< in front of the next record
};

/// Bytes of what is said of a message.
std::size_t textSize(const StreamMessage& message)
{
    std::size_t size = message.summary.size();
    for (const DetailRow& row : message.detail) size += row.name.size() + row.value.size();
    for (const auto& attribute : message.attributes)
        if (const auto* const text = std::get_if<std::string>(&attribute.value)) size += text->size();
    return size;
}

/// What a direction says under encryption.
struct OpenedDirection {
    std::shared_ptr<const ReachPlaintext> plaintext;
    std::vector<StreamMessage> handshake;
    std::optional<std::string> applicationProtocol;
    bool isWhole = false;  ///< every protected record opened
};

OpenedDirection openedDirection(ReachConnection& connection, Direction direction)
{
    const TCPStream& stream = connection.stream();
    const bool isTLS13 = connection.parameters()->isTLS13();
    OpenedDirection opened;
    auto plaintext = std::make_shared<ReachPlaintext>(
        stream.data(direction), direction == Direction::serverToClient ? stream.serverByteIndex : stream.clientByteIndex);
    // A record has room for thousands that say nothing, and some say much in few bytes.
    constexpr std::size_t mostHandshakeMessages = 10'000, mostTextOfHandshake = 4 << 20;
    std::size_t text = 0;
    std::int64_t unshown = 0;
    ReachWalk walk(connection, direction);
    while (walk.next(plaintext->room(PlaintextReader::largestRecord))) {
        if (const auto& gap = walk.gap()) {
            // The record was opened where the hole begins.
            const std::vector<std::uint8_t> content(walk.content().begin(), walk.content().end());
            plaintext->addHole(gap->contentLength);
            std::ranges::copy(content, plaintext->room(PlaintextReader::largestRecord));
        }
        if (walk.isApplicationData())
            plaintext->add(walk.content().size(), {walk.record().bodyOffset, walk.record().endOffset()},
                           {walk.opener(), walk.sequence(), walk.offsetUnderKey()});
        for (const AssembledMessage& message : walk.messages()) {
            if (opened.handshake.size() == mostHandshakeMessages || text > mostTextOfHandshake) {
                ++unshown;
                continue;
            }
            opened.handshake.push_back(
                ReachMessages::message(message, isTLS13 ? ReachMessages::Form::TLS13 : ReachMessages::Form::upToTLS12, direction, stream));
            text += textSize(opened.handshake.back());
            if (isTLS13 && message.type == std::to_underlying(TLSHandshakeType::encryptedExtensions))
                opened.applicationProtocol = TLSApplicationProtocol::ofEncryptedExtensions(message.body);
        }
    }
    if (unshown > 0)
        opened.handshake.push_back({.direction = direction,
                                    .kind = StreamMessageKind::handshake,
                                    .summary = fmt::format("{} further handshake messages are not shown", unshown),
                                    .detail = {TLSDecryptedMessages::row()},
                                    .timestamp = opened.handshake.back().timestamp,
                                    .isDecrypted = true});
    plaintext->end();
    opened.plaintext = std::move(plaintext);
    opened.isWhole = walk.openedRecords() == walk.protectedRecords();
    return opened;
}

StreamData dataOf(const OpenedDirection& opened)
{
    const std::int64_t size = opened.plaintext->size();
    return opened.plaintext->openedBytes() > 0 ? StreamData(opened.plaintext, size) : StreamData();
}

TCPStream plaintextStream(const TCPStream& captured, const OpenedDirection& client, const OpenedDirection& server)
{
    TCPStream stream = captured;
    stream.clientToServerData = dataOf(client);
    stream.serverToClientData = dataOf(server);
    stream.clientByteIndex = ByteToSegmentIndex(client.plaintext);
    stream.serverByteIndex = ByteToSegmentIndex(server.plaintext);
    return stream;
}

/// What the hellos say about the plaintext.
StreamContext contextOf(const ReachConnection& connection, const OpenedDirection& server, const StreamContext& outer)
{
    StreamContext context = outer;
    context.isDecrypted = true;
    context.rowsInFront = {TLSDecryptedMessages::row()};
    context.notOfferedTo = StreamLayer::security;
    ++context.depth;
    context.serverName = connection.clientHello() ? connection.clientHello()->serverName : std::nullopt;
    context.applicationProtocol =
        server.applicationProtocol ? server.applicationProtocol : TLSApplicationProtocol::negotiated(connection.stream(), {});
    return context;
}

StreamMessage wholeDirection(Direction direction, const OpenedDirection& opened)
{
    return {.direction = direction,
            .summary = fmt::format("Decrypted Application Data ({} bytes)", opened.plaintext->openedBytes()),
            .detail = {TLSDecryptedMessages::row()},
            .body = StreamBody(dataOf(opened)),
            .bodyHint = StreamBodyHint::text(TextEncoding::utf8),
            .isDecrypted = true};
}

/// Both directions of a connection, opened.
struct OpenedStream {
    explicit OpenedStream(ReachConnection& connection)
    {
        // A connection is used by one thread.
        constexpr std::int64_t worthAThread = 500'000;
        const TCPStream& stream = connection.stream();
        std::optional<ReachConnection> other;
        if (std::min(stream.clientToServerData.size(), stream.serverToClientData.size()) >= worthAThread)
            other.emplace(stream, connection.sharedSecrets());
        const auto openClient = [&] { client = openedDirection(connection, Direction::clientToServer); };
        const auto openServer = [&] { server = openedDirection(other ? *other : connection, Direction::serverToClient); };
        if (other) {
            sideBySide(openClient, openServer);
        } else {
            openClient();
            openServer();
        }
    }
    bool hasPlaintext() const { return client.plaintext->openedBytes() > 0 || server.plaintext->openedBytes() > 0; }
    /// A handshake alone does not stand in for data that stay closed.
    bool isOpen() const
    {
        const bool hasHandshake = !client.handshake.empty() || !server.handshake.empty();
        return hasPlaintext() || (hasHandshake && client.isWhole && server.isWhole);
    }

    OpenedDirection client;
    OpenedDirection server;
};

}  // namespace

ReachProbe::ReachProbe(std::shared_ptr<const KeyLogSources> sources) : store_(sources), secrets_(std::move(sources)) {}

ReachProbe::ReachProbe() : ReachProbe(std::make_shared<const KeyLogSources>(SecretText(), std::vector<std::string>())) {}

std::shared_ptr<const TLSStreamDecryptionProbing> ReachProbe::withSecrets(std::shared_ptr<const KeyLogSources> secrets) const
{
    return std::make_shared<const ReachProbe>(std::move(secrets));
}

TLSDecryptionOutcome ReachProbe::probe(const TCPStream& stream) const
{
    ReachConnection connection(stream, secrets_.current());
    const TLSDecryptionReport report = reachReport(connection, ReportDepth::hellos);
    if (report.outcome) return *report.outcome;
    for (const Direction direction : {Direction::serverToClient, Direction::clientToServer}) {
        ReachWalk walk(connection, direction);
        while (walk.next())
            if (walk.isApplicationData()) return TLSDecryptionOutcome::decrypted();
    }
    return TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch);
}

std::optional<TLSDecryptionReport> ReachProbe::report(const TCPStream& stream, ReportDepth depth) const
{
    ReachConnection connection(stream, secrets_.current());
    return reachReport(connection, depth);
}

TLSKeyMaterialReport ReachProbe::keyMaterial() const
{
    TLSKeyMaterialReport report = TLSKeyLogProbing::keyMaterial();
    const auto secrets = secrets_.current();
    report.secrets += static_cast<std::int64_t>(secrets->sessions.size());
    report.privateKeys = std::ssize(secrets->privateKeys);
    return report;
}

SecretText ReachProbe::keyLogLines(const TCPStream& stream) const
{
    if (auto lines = TLSKeyLogProbing::keyLogLines(stream); !lines.empty()) return lines;
    return ReachConnection(stream, secrets_.current()).keyLogLine();
}

std::unique_ptr<PlaintextReader> ReachProbe::plaintextReader(const TCPStream& stream, Direction direction) const
{
    auto reader = std::make_unique<ReachReader>(std::make_unique<ReachConnection>(stream, secrets_.current()), direction);
    if (!reader->hasKeys()) return nullptr;
    return reader;
}

std::optional<StreamInterpretation> ReachProbe::decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const
{
    std::optional<StreamInterpretation> whole;
    const auto tellInner = [&](const TCPStream& inner, const StreamContext& known, const StreamPartVisitor& visit) {
        auto interpretation = context.host->carriedInterpretation(inner, known);
        if (!interpretation) return false;
        StreamPart part = partOf(*std::move(interpretation));
        visit(part);
        return true;
    };
    tellOpened(stream, context, tellInner, [&](StreamPart& part) {
        whole.emplace(std::move(part.messages));
        if (!part.pairings.empty()) whole->pairings = std::move(part.pairings);
        return true;
    });
    return whole;
}

bool ReachProbe::tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    const auto tellInner = [&](const TCPStream& inner, const StreamContext& known, const StreamPartVisitor& told) {
        return context.host->tellCarried(inner, known, told);
    };
    return tellOpened(stream, context, tellInner, visit);
}

bool ReachProbe::tellOpened(const TCPStream& stream, const StreamContext& context, const TellInner& tellInner,
                            const StreamPartVisitor& visit) const
{
    ReachConnection connection(stream, secrets_.current());
    if (!connection.parameters()) return false;
    OpenedStream opened(connection);
    if (!opened.isOpen()) return false;
    auto& [client, server] = opened;
    // The handshake stands in front of what the plaintext is made into, whose pairings point behind it then.
    StreamPart front{.messages = std::move(client.handshake)};
    std::ranges::move(server.handshake, std::back_inserter(front.messages));
    std::ranges::stable_sort(front.messages, {}, &StreamMessage::timestamp);
    const std::int64_t shift = std::ssize(front.messages);
    bool isTold = false;
    const StreamPartVisitor told = [&](StreamPart& part) {
        std::ranges::for_each(part.messages, TLSDecryptedMessages::mark);
        for (Pairing& pairing : part.pairings) {
            pairing.requestIndex += shift;
            if (pairing.replyIndex) *pairing.replyIndex += shift;
        }
        if (std::exchange(isTold, true)) {
            part.first += shift;
            return visit(part);
        }
        std::ranges::move(part.messages, std::back_inserter(front.messages));
        front.pairings = std::move(part.pairings);
        return visit(front);
    };
    bool isCarried = false;
    if (opened.hasPlaintext() && context.host)
        isCarried = tellInner(plaintextStream(stream, client, server), contextOf(connection, server, context), told);
    if (!isCarried) {
        if (client.plaintext->openedBytes() > 0) front.messages.push_back(wholeDirection(Direction::clientToServer, client));
        if (server.plaintext->openedBytes() > 0) front.messages.push_back(wholeDirection(Direction::serverToClient, server));
    }
    if (!isTold) visit(front);
    return true;
}

std::unique_ptr<StreamExchangeReader> ReachProbe::decryptedExchanges(const TCPStream& stream, const StreamContext& context) const
{
    ReachConnection connection(stream, secrets_.current());
    if (!connection.parameters()) return nullptr;
    const OpenedStream opened(connection);
    if (!opened.isOpen()) return nullptr;
    std::unique_ptr<StreamExchangeReader> inner;
    if (opened.hasPlaintext() && context.host)
        inner = context.host->carriedExchanges(plaintextStream(stream, opened.client, opened.server),
                                               contextOf(connection, opened.server, context));
    return TLSDecryptedMessages::exchanges(std::move(inner));
}

}  // namespace sealscope
