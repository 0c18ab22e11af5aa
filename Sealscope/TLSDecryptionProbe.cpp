// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDecryptionProbe.h"

#include "Sealscope/TLSApplicationProtocol.h"
#include "Sealscope/TLSDecryptedMessages.h"
#include "Sealscope/TLSDirectionReporter.h"
#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSKeyLogStore.h"
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "Sealscope/TLSStreamReport.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Context = TLSStreamDecryption::Context;

/// Whether a direction has plaintext. The first byte of it settles that.
bool opens(const TCPStream& stream, Direction direction, const Context& context, const TLSKeyLog& keyLog)
{
    auto walk = TLSStreamDecryption::directionWalk(stream.data(direction), direction, context, keyLog);
    return walk && walk->nextApplicationData();
}

/// Owns what the walk borrows.
class DirectionReader final : public PlaintextReader {
public:
    static std::unique_ptr<PlaintextReader> begin(const TCPStream& stream, Direction direction, const Context& context, TLSKeyLog keyLog)
    {
        auto reader = std::unique_ptr<DirectionReader>(new DirectionReader(stream, direction, context, std::move(keyLog)));
        reader->walk_ = TLSStreamDecryption::directionWalk(reader->stream_.data(direction), direction, reader->context_, reader->keyLog_);
        if (!reader->walk_) return nullptr;
        return reader;
    }

    std::optional<PlaintextRecord> next(std::span<std::uint8_t> room) override
    {
        while (true) {
            const auto step = walk_->next(room.data());
            progress_.take(step, *walk_);
            if (step == TLSDirectionWalk::Step::end) return std::nullopt;
            if (step == TLSDirectionWalk::Step::opened && walk_->isApplicationData())
                return PlaintextRecord{walk_->plaintext(), {walk_->record().bodyOffset, walk_->record().endOffset()}};
        }
    }

    std::optional<TLSDirectionReport> report() override
    {
        return TLSDirectionReporter(stream_, context_, keyLog_).report(direction_, *walk_, progress_);
    }
    bool hasPassedOver() const override { return progress_.skippedRecords() > 0; }

private:
    DirectionReader(const TCPStream& stream, Direction direction, const Context& context, TLSKeyLog keyLog)
        : stream_(stream), direction_(direction), context_(context), keyLog_(std::move(keyLog))
    {}

    TCPStream stream_;
    Direction direction_;
    Context context_;
    TLSKeyLog keyLog_;
    std::optional<TLSDirectionWalk> walk_;
    TLSDirectionReporter::Progress progress_;
};

/// The plaintext of both directions; nothing when there is none of either.
struct Plaintext {
    std::optional<TLSStreamDecryption::DirectionPlain> client;
    std::optional<TLSStreamDecryption::DirectionPlain> server;
};

/// Opens a direction, to be held or to be read in pieces.
using Decrypt = decltype(TLSStreamDecryption::decrypt);

std::optional<Plaintext> decrypted(const TCPStream& stream, const TLSKeyLog& keyLog, Decrypt& decrypt)
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return std::nullopt;
    Plaintext plaintext{.client = decrypt(Direction::clientToServer, stream, *context, keyLog),
                        .server = decrypt(Direction::serverToClient, stream, *context, keyLog)};
    if (!plaintext.client && !plaintext.server) return std::nullopt;
    return plaintext;
}

/// What an interpreter made of the plaintext, marked as decrypted; without one, a message a direction.
std::optional<StreamInterpretation> shown(std::optional<StreamInterpretation> interpretation, const Plaintext& plaintext)
{
    if (!interpretation) {
        auto messages = TLSDecryptionProbe::fallbackMessages(plaintext.client, plaintext.server);
        if (!messages) return std::nullopt;
        return StreamInterpretation{std::move(*messages), std::nullopt};
    }
    std::ranges::for_each(interpretation->messages, TLSDecryptedMessages::mark);
    return interpretation;
}

/// What the handshake says about the plaintext.
StreamContext contextOf(const TCPStream& stream, const StreamContext& outer, const TLSKeyLog& keyLog)
{
    StreamContext context = outer;
    context.isDecrypted = true;
    context.rowsInFront = {TLSDecryptedMessages::row()};
    context.notOfferedTo = StreamLayer::security;
    ++context.depth;
    const auto clientHello = TLSStreamDecryption::firstClientHello(stream.clientToServerData);
    context.serverName = clientHello ? clientHello->serverName : std::nullopt;
    context.applicationProtocol = TLSApplicationProtocol::negotiated(stream, keyLog);
    return context;
}

void appendHex(SecretText& text, DataView bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
}

}  // namespace

TLSDecryptionOutcome TLSKeyLogProbing::probe(const TCPStream& stream) const
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) {
        const bool hasHandshake = context.error() != TLSStreamDecryption::ContextFailure::noHandshake;
        return TLSDecryptionOutcome::notDecrypted(hasHandshake ? TLSDecryptionFailure::unsupportedVersion
                                                               : TLSDecryptionFailure::noHandshake);
    }
    const TLSKeyLog keyLog = store().current();
    if (!TLSStreamDecryption::hasKeyMaterial(*context, keyLog))
        return TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noKeyMaterial);
    const bool isDecrypted =
        opens(stream, Direction::serverToClient, *context, keyLog) || opens(stream, Direction::clientToServer, *context, keyLog);
    return isDecrypted ? TLSDecryptionOutcome::decrypted() : TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch);
}

std::shared_ptr<const TLSStreamDecryptionProbing> TLSKeyLogProbing::withSecrets(std::shared_ptr<const KeyLogSources> secrets) const
{
    return std::make_shared<const TLSSessionProbe>(std::move(secrets));
}

std::optional<TLSDecryptionReport> TLSKeyLogProbing::report(const TCPStream& stream, ReportDepth depth) const
{
    return TLSStreamReport::report(stream, store().current(), depth);
}

std::optional<StreamInterpretation> TLSKeyLogProbing::decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const
{
    const TLSKeyLog keyLog = store().current();
    const auto plaintext = decrypted(stream, keyLog, TLSStreamDecryption::decryptToReadInPieces);
    if (!plaintext) return std::nullopt;
    if (!context.host) return shown(std::nullopt, *plaintext);
    const TCPStream inner = TLSDecryptionProbe::decryptedStream(stream, plaintext->client, plaintext->server);
    return shown(context.host->carriedInterpretation(inner, contextOf(stream, context, keyLog)), *plaintext);
}

bool TLSKeyLogProbing::tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    const TLSKeyLog keyLog = store().current();
    const auto plaintext = decrypted(stream, keyLog, TLSStreamDecryption::decryptToReadInPieces);
    if (!plaintext) return false;
    const auto told = [&](StreamPart& part) {
        std::ranges::for_each(part.messages, TLSDecryptedMessages::mark);
        return visit(part);
    };
    const auto& [client, server] = *plaintext;
    if (context.host &&
        context.host->tellCarried(TLSDecryptionProbe::decryptedStream(stream, client, server), contextOf(stream, context, keyLog), told))
        return true;
    auto messages = TLSDecryptionProbe::fallbackMessages(client, server);
    if (!messages) return false;
    StreamPart whole{.messages = *std::move(messages)};
    visit(whole);
    return true;
}

std::unique_ptr<StreamExchangeReader> TLSKeyLogProbing::decryptedExchanges(const TCPStream& stream, const StreamContext& context) const
{
    const TLSKeyLog keyLog = store().current();
    const auto plaintext = decrypted(stream, keyLog, TLSStreamDecryption::decryptToReadInPieces);
    if (!plaintext) return nullptr;
    const TCPStream inner = TLSDecryptionProbe::decryptedStream(stream, plaintext->client, plaintext->server);
    return TLSDecryptedMessages::exchanges(context.host ? context.host->carriedExchanges(inner, contextOf(stream, context, keyLog))
                                                        : nullptr);
}

std::unique_ptr<PlaintextReader> TLSKeyLogProbing::plaintextReader(const TCPStream& stream, Direction direction) const
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return nullptr;
    return DirectionReader::begin(stream, direction, *context, store().current());
}

TLSKeyMaterialReport TLSKeyLogProbing::keyMaterial() const { return store().material(); }

bool TLSKeyLogProbing::hasSecrets(DataView clientRandom) const
{
    const TLSKeyLog keyLog = store().current();
    return std::ranges::any_of(TLSKeyLog::knownLabels,
                               [&](std::string_view label) { return keyLog.secrets.length(label, clientRandom).has_value(); });
}

SecretText TLSKeyLogProbing::keyLogLines(const TCPStream& stream) const
{
    SecretText lines;
    const auto clientRandom = TLSStreamDecryption::firstClientRandom(stream.clientToServerData);
    if (!clientRandom) return lines;
    const TLSKeyLog keyLog = store().current();
    for (const std::string_view label : TLSKeyLog::knownLabels) {
        const auto secret = keyLog.secrets.find(label, *clientRandom);
        if (!secret) continue;
        lines += label;
        lines += ' ';
        appendHex(lines, *clientRandom);
        lines += ' ';
        appendHex(lines, *secret);
        lines += '\n';
    }
    return lines;
}

TLSKeyLogLineCount TLSKeyLogProbing::countKeyLogLines(std::string_view text) const { return TLSKeyLog::countLines(text); }

bool TLSDecryptionProbe::hasKeyMaterial(const Context& context)
{
    return TLSStreamDecryption::hasKeyMaterial(context, TLSKeyLogStore::shared().current());
}

std::optional<StreamInterpretation> TLSDecryptionProbe::decryptedInterpretation(const TCPStream& stream)
{
    const TLSKeyLog keyLog = TLSKeyLogStore::shared().current();
    const auto plaintext = decrypted(stream, keyLog, TLSStreamDecryption::decrypt);
    if (!plaintext) return std::nullopt;
    const TCPStream inner = decryptedStream(stream, plaintext->client, plaintext->server);
    auto candidates = VELStreamInterpreterRegistry::shared().snapshot();
    std::erase_if(candidates, [](const VELStreamInterpreting* interpreter) {
        return interpreter->streamDisplayName == TLSProtocolAnalyzer::streamDisplayName;
    });
    const StreamContext context = contextOf(stream, {}, keyLog);
    const VELStreamInterpreting* const interpreter = VELStreamInterpreter::firstInterpreter(inner, candidates, context);
    return shown(interpreter ? std::optional(interpreter->interpret(inner, context)) : std::nullopt, *plaintext);
}

TCPStream TLSDecryptionProbe::decryptedStream(const TCPStream& stream, const std::optional<DirectionPlain>& client,
                                              const std::optional<DirectionPlain>& server)
{
    TCPStream plaintext = stream;
    plaintext.clientToServerData = client ? client->data : StreamData();
    plaintext.clientByteIndex = client ? client->index : ByteToSegmentIndex::empty;
    plaintext.serverToClientData = server ? server->data : StreamData();
    plaintext.serverByteIndex = server ? server->index : ByteToSegmentIndex::empty;
    return plaintext;
}

std::optional<std::vector<StreamMessage>> TLSDecryptionProbe::fallbackMessages(const std::optional<DirectionPlain>& client,
                                                                               const std::optional<DirectionPlain>& server)
{
    std::vector<StreamMessage> messages;
    const auto add = [&](Direction direction, const std::optional<DirectionPlain>& plain) {
        if (!plain) return;
        messages.push_back({.direction = direction,
                            .summary = fmt::format("Decrypted Application Data ({} bytes)", plain->data.size()),
                            .detail = {TLSDecryptedMessages::row()},
                            .body = plain->data,
                            .bodyHint = StreamBodyHint::text(TextEncoding::utf8),
                            .isDecrypted = true});
    };
    add(Direction::clientToServer, client);
    add(Direction::serverToClient, server);
    if (messages.empty()) return std::nullopt;
    return messages;
}

}  // namespace sealscope
