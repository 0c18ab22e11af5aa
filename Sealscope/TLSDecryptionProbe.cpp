// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDecryptionProbe.h"

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

const DetailRow decryptedRow{.name = "TLS", .value = "decrypted"};

/// Whether a direction has plaintext. The first byte of it settles that.
bool opens(const TCPStream& stream, Direction direction, const Context& context, const TLSKeyLog& keyLog)
{
    auto walk = TLSDirectionWalk::begin(stream.data(direction), direction, context, keyLog);
    return walk && walk->nextApplicationData();
}

/// Owns what the walk borrows.
class DirectionReader final : public PlaintextReader {
public:
    static std::unique_ptr<PlaintextReader> begin(const TCPStream& stream, Direction direction, const Context& context, TLSKeyLog keyLog)
    {
        auto reader = std::unique_ptr<DirectionReader>(new DirectionReader(stream, direction, context, std::move(keyLog)));
        reader->walk_ = TLSDirectionWalk::begin(reader->stream_.data(direction), direction, reader->context_, reader->keyLog_);
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

StreamMessage markedAsDecrypted(const StreamMessage& message)
{
    std::vector<DetailRow> detail{decryptedRow};
    detail.insert(detail.end(), message.detail.begin(), message.detail.end());
    return StreamMessage(message.direction, message.kind, message.summary, std::move(detail), message.body, message.bodyHint,
                         message.byteRange, message.packetIds, message.timestamp, message.filename, true);
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

TLSDecryptionOutcome TLSDecryptionProbe::probe(const TCPStream& stream) const
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) {
        const bool hasHandshake = context.error() != TLSStreamDecryption::ContextFailure::noHandshake;
        return TLSDecryptionOutcome::notDecrypted(hasHandshake ? TLSDecryptionFailure::unsupportedVersion
                                                               : TLSDecryptionFailure::noHandshake);
    }
    const TLSKeyLog keyLog = TLSKeyLogStore::shared().current();
    if (!TLSStreamDecryption::hasKeyMaterial(*context, keyLog))
        return TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noKeyMaterial);
    const bool isDecrypted =
        opens(stream, Direction::serverToClient, *context, keyLog) || opens(stream, Direction::clientToServer, *context, keyLog);
    return isDecrypted ? TLSDecryptionOutcome::decrypted() : TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch);
}

std::optional<TLSDecryptionReport> TLSDecryptionProbe::report(const TCPStream& stream, bool walk) const
{
    return TLSStreamReport::report(stream, TLSKeyLogStore::shared().current(), walk);
}

std::unique_ptr<PlaintextReader> TLSDecryptionProbe::plaintextReader(const TCPStream& stream, Direction direction) const
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return nullptr;
    return DirectionReader::begin(stream, direction, *context, TLSKeyLogStore::shared().current());
}

TLSKeyMaterialReport TLSDecryptionProbe::keyMaterial() const { return TLSKeyLogStore::shared().material(); }

bool TLSDecryptionProbe::hasSecrets(DataView clientRandom) const
{
    const TLSKeyLog keyLog = TLSKeyLogStore::shared().current();
    return std::ranges::any_of(TLSKeyLog::knownLabels,
                               [&](std::string_view label) { return keyLog.secrets.length(label, clientRandom).has_value(); });
}

SecretText TLSDecryptionProbe::keyLogLines(const TCPStream& stream) const
{
    SecretText lines;
    const auto clientRandom = TLSStreamDecryption::firstClientRandom(stream.clientToServerData);
    if (!clientRandom) return lines;
    const TLSKeyLog keyLog = TLSKeyLogStore::shared().current();
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

TLSKeyLogLineCount TLSDecryptionProbe::countKeyLogLines(std::string_view text) const { return TLSKeyLog::countLines(text); }

bool TLSDecryptionProbe::hasKeyMaterial(const Context& context)
{
    return TLSStreamDecryption::hasKeyMaterial(context, TLSKeyLogStore::shared().current());
}

TLSDecryptionProbe::DecryptedInterpretation TLSDecryptionProbe::decryptedInterpretation(const TCPStream& stream)
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return {};
    const TLSKeyLog keyLog = TLSKeyLogStore::shared().current();
    const auto client = TLSStreamDecryption::decrypt(Direction::clientToServer, stream, *context, keyLog);
    const auto server = TLSStreamDecryption::decrypt(Direction::serverToClient, stream, *context, keyLog);
    if (!client && !server) return {};

    const TCPStream plaintext = decryptedStream(stream, client, server);
    auto candidates = VELStreamInterpreterRegistry::shared().snapshot();
    std::erase_if(candidates, [](const VELStreamInterpreting* interpreter) {
        return interpreter->streamDisplayName == TLSProtocolAnalyzer::streamDisplayName;
    });
    const VELStreamInterpreting* const interpreter = VELStreamInterpreter::firstInterpreter(plaintext, candidates);
    if (!interpreter) return {fallbackMessages(client, server), std::nullopt};

    StreamInterpretation interpretation = interpreter->interpret(plaintext);
    std::vector<StreamMessage> messages;
    messages.reserve(interpretation.messages.size());
    std::ranges::transform(interpretation.messages, std::back_inserter(messages), markedAsDecrypted);
    return {std::move(messages), std::move(interpretation.pairings)};
}

TCPStream TLSDecryptionProbe::decryptedStream(const TCPStream& stream, const std::optional<DirectionPlain>& client,
                                              const std::optional<DirectionPlain>& server)
{
    TCPStream plaintext = stream;
    plaintext.clientToServerData = client ? client->data : Data();
    plaintext.clientByteIndex = client ? client->index : ByteToSegmentIndex::empty;
    plaintext.serverToClientData = server ? server->data : Data();
    plaintext.serverByteIndex = server ? server->index : ByteToSegmentIndex::empty;
    return plaintext;
}

std::optional<std::vector<StreamMessage>> TLSDecryptionProbe::fallbackMessages(const std::optional<DirectionPlain>& client,
                                                                               const std::optional<DirectionPlain>& server)
{
    std::vector<StreamMessage> messages;
    const auto add = [&](Direction direction, const std::optional<DirectionPlain>& plain) {
        if (!plain) return;
        messages.emplace_back(direction, StreamMessageKind::data, fmt::format("Decrypted Application Data ({} bytes)", plain->data.size()),
                              std::vector{decryptedRow}, plain->data, StreamBodyHint::text(TextEncoding::utf8), std::nullopt,
                              std::vector<std::int64_t>{}, 0.0, std::nullopt, true);
    };
    add(Direction::clientToServer, client);
    add(Direction::serverToClient, server);
    if (messages.empty()) return std::nullopt;
    return messages;
}

}  // namespace sealscope
