// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamDecryption.h"

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSKeyLogStore.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSPlaintext.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Context = TLSStreamDecryption::Context;
using DirectionPlain = TLSStreamDecryption::DirectionPlain;

/// What `parse` makes of the first message of a type that it can parse, among those that lie whole within one record.
template <class Parse>
auto firstMessage(const StreamData& bytes, TLSHandshakeType type, Parse parse) -> decltype(parse(DataView{}, std::int64_t{}))
{
    decltype(parse(DataView{}, std::int64_t{})) found;
    std::vector<std::uint8_t> gathered;
    StreamReader inside(bytes);
    forEachRecord(bytes, [&](const TLSRecord& record) {
        if (record.isTruncated || record.contentType != std::to_underlying(TLSContentType::handshake)) return true;
        forEachHandshakeMessage(inside, record, [&](const TLSHandshakeMessage& message) {
            if (message.isTruncated || message.handshakeType != std::to_underlying(type)) return true;
            found = parse(bytes.gather(message.bodyOffset, message.length, gathered), message.bodyOffset);
            return !found;
        });
        return !found;
    });
    return found;
}

const ByteToSegmentIndex& byteIndex(const TCPStream& stream, Direction direction)
{
    return direction == Direction::serverToClient ? stream.serverByteIndex : stream.clientByteIndex;
}

/// Finds the packets behind plaintext: those of the records that it was opened from. They are looked up when somebody asks.
class PlaintextLocator final : public ByteLocator {
public:
    explicit PlaintextLocator(ByteToSegmentIndex captured) : captured_(std::move(captured)) {}

    /// Plaintext that follows what was added before, up to `end`, from a record whose body lies at `body`.
    void add(std::int64_t end, ByteRange body) { pieces_.push_back({end, body}); }

    ByteLocation locate(ByteRange range) const override
    {
        ByteLocation location;
        PacketIdCollector packets(location.packetIds);
        const auto first = std::ranges::upper_bound(pieces_, range.lower, {}, &Piece::end);
        for (auto piece = first; piece != pieces_.end(); ++piece) {
            const std::int64_t start = piece == pieces_.begin() ? 0 : std::prev(piece)->end;
            if (start >= range.upper) break;
            const ByteLocation behind = captured_.locate(piece->body);
            if (start == piece->end || behind.packetIds.empty()) continue;
            for (const std::int64_t packetId : behind.packetIds) packets.add(packetId);
            const double timestamp = behind.timestamp.value_or(0);
            location.timestamp = std::min(location.timestamp.value_or(timestamp), timestamp);
        }
        return location;
    }

private:
    struct Piece {
        std::int64_t end = 0;
        ByteRange body;
    };
    ByteToSegmentIndex captured_;
    std::vector<Piece> pieces_;
};

struct Free {
    void operator()(std::uint8_t* bytes) const { std::free(bytes); }
};

/// The plaintext of a direction that does not lie in one place.
class PlaintextPieces final : public StreamByteSource {
public:
    struct Piece {
        std::int64_t begin = 0;
        std::int64_t end = 0;
        std::int64_t capacity = 0;
        std::unique_ptr<std::uint8_t[], Free> bytes;
    };
    explicit PlaintextPieces(std::vector<Piece> pieces) : pieces_(std::move(pieces)) {}

    DataView stretch(std::int64_t offset) const override
    {
        const Piece& piece = *std::prev(std::ranges::upper_bound(pieces_, offset, {}, &Piece::begin));
        return {piece.bytes.get() + (offset - piece.begin), piece.end - offset};
    }

private:
    std::vector<Piece> pieces_;
};

/// Lays plaintext end to end. Records are opened straight to where they belong; memory that nothing was written to never existed,
/// and what is left over is given back.
class PlaintextJoiner {
public:
    /// `expected`: as many bytes as a direction may have, where they are known.
    explicit PlaintextJoiner(std::int64_t expected) : next_(expected) {}

    /// Room for `count` bytes behind those that are there.
    std::uint8_t* room(std::int64_t count)
    {
        if (pieces_.empty() || pieces_.back().capacity - (size_ - pieces_.back().begin) < count) begin(count);
        return pieces_.back().bytes.get() + (size_ - pieces_.back().begin);
    }
    /// That many bytes of it were written.
    void take(std::int64_t count) { size_ = pieces_.back().end = size_ + count; }
    void append(DataView bytes)
    {
        std::ranges::copy(bytes, room(bytes.size()));
        take(bytes.size());
    }
    std::int64_t size() const { return size_; }

    StreamData data() &&
    {
        PlaintextPieces::Piece& last = pieces_.back();
        if (auto* const shrunk = std::realloc(last.bytes.get(), static_cast<std::size_t>(last.end - last.begin))) {
            (void)last.bytes.release();
            last.bytes.reset(static_cast<std::uint8_t*>(shrunk));
        }
        if (pieces_.size() > 1) return {std::make_shared<PlaintextPieces>(std::move(pieces_)), size_};
        const std::uint8_t* const bytes = last.bytes.get();
        return Data(std::shared_ptr<const std::uint8_t[]>(std::move(last.bytes)), {bytes, size_});
    }

private:
    static constexpr std::int64_t pieceSize = 1 << 20;

    void begin(std::int64_t count)
    {
        // All of it in one place where there is one; else, and for what goes beyond, piece by piece.
        for (const std::int64_t capacity : {std::exchange(next_, pieceSize), pieceSize, count}) {
            if (capacity < count) continue;
            std::unique_ptr<std::uint8_t[], Free> bytes(static_cast<std::uint8_t*>(std::malloc(static_cast<std::size_t>(capacity))));
            if (!bytes) continue;
            pieces_.push_back({size_, size_, capacity, std::move(bytes)});
            return;
        }
        throw std::bad_alloc();
    }

    std::int64_t next_;  ///< capacity of the next piece
    std::int64_t size_ = 0;
    std::vector<PlaintextPieces::Piece> pieces_;
};

/// What the walk opens. A record's plaintext is shorter than the record, so that a direction's is shorter than its captured
/// bytes; a hole is none of it.
std::optional<DirectionPlain> joined(TLSDirectionWalk walk, const StreamData& data, const ByteToSegmentIndex& captured)
{
    PlaintextJoiner plaintext(data.size() - data.holeBytes());
    auto locator = std::make_shared<PlaintextLocator>(captured);
    for (auto step = TLSDirectionWalk::Step::opened; step != TLSDirectionWalk::Step::end;) {
        step = walk.next([&](std::int64_t count) { return plaintext.room(count); });
        if (step != TLSDirectionWalk::Step::opened || walk.innerType() != std::to_underlying(TLSContentType::applicationData)) continue;
        plaintext.take(walk.plaintext().size());
        locator->add(plaintext.size(), {walk.record().bodyOffset, walk.record().endOffset()});
    }
    if (plaintext.size() == 0) return std::nullopt;
    return DirectionPlain{.data = std::move(plaintext).data(), .index = ByteToSegmentIndex(std::move(locator))};
}

/// The same of a list of opened records.
template <class Record> std::optional<DirectionPlain> joined(const std::vector<Record>& records, auto isWanted)
{
    PlaintextJoiner plaintext(0);
    std::vector<ByteSpan> spans;
    for (const Record& record : records) {
        if (!isWanted(record)) continue;
        const std::int64_t start = plaintext.size();
        plaintext.append(record.plaintext);
        if (!record.packetIds.empty()) spans.push_back({{start, plaintext.size()}, record.packetIds, record.timestamp});
    }
    if (plaintext.size() == 0) return std::nullopt;
    return DirectionPlain{.data = std::move(plaintext).data(), .index = ByteToSegmentIndex(std::move(spans))};
}

constexpr std::int64_t masterSecretLength = 48;  // RFC 5246 §8.1

std::optional<TLS12RecordDecryptor::RecordSequence> beginTLS12(Direction direction, const Context& context, const TLSKeyLog& keyLog)
{
    const auto masterSecret = keyLog.secrets.find(masterSecretLabel, context.clientRandom);
    if (!masterSecret || masterSecret->size() != masterSecretLength) return std::nullopt;
    const auto parameters = TLS12RecordDecryptor::suiteParameters(context.cipherSuite);
    if (!parameters) return std::nullopt;
    const auto keys =
        TLS12RecordDecryptor::directionKeys(direction, *parameters, context.clientRandom, context.serverRandom, *masterSecret);
    if (!keys) return std::nullopt;
    return TLS12RecordDecryptor::RecordSequence(*keys, parameters->cipher);
}

std::optional<TLS13RecordDecryptor::RecordSequence> beginTLS13(Direction direction, const Context& context, const TLSKeyLog& keyLog)
{
    const TLSSecretLabels labels = secretLabels(direction);
    const auto applicationSecret = keyLog.secrets.find(labels.application, context.clientRandom);
    if (!applicationSecret) return std::nullopt;
    const auto handshakeSecret = keyLog.secrets.find(labels.handshake, context.clientRandom);
    const auto suite = TLS13RecordDecryptor::suiteParameters(context.cipherSuite);
    if (!suite) return std::nullopt;
    return TLS13RecordDecryptor::RecordSequence(handshakeSecret, *applicationSecret, *suite);
}

}  // namespace

TLSSecretLabels secretLabels(Direction direction)
{
    if (direction == Direction::serverToClient) return {"SERVER_TRAFFIC_SECRET_0", "SERVER_HANDSHAKE_TRAFFIC_SECRET"};
    return {"CLIENT_TRAFFIC_SECRET_0", "CLIENT_HANDSHAKE_TRAFFIC_SECRET"};
}

TLSSecretLabels secretLabels(const Context& context, Direction direction)
{
    return context.isTLS13 ? secretLabels(direction) : TLSSecretLabels{masterSecretLabel, ""};
}

std::optional<ClientHelloInfo> TLSStreamDecryption::firstClientHello(const StreamData& clientToServer)
{
    return firstMessage(clientToServer, TLSHandshakeType::clientHello,
                        [](DataView body, std::int64_t baseOffset) { return TLSDissector::parseClientHello(body, baseOffset); });
}

std::optional<Data> TLSStreamDecryption::firstClientRandom(const StreamData& clientToServer)
{
    auto hello = firstClientHello(clientToServer);
    if (!hello) return std::nullopt;
    return std::move(hello->clientRandom);
}

std::optional<ServerHelloInfo> TLSStreamDecryption::firstServerHello(const StreamData& serverToClient)
{
    return firstMessage(serverToClient, TLSHandshakeType::serverHello,
                        [](DataView body, std::int64_t baseOffset) { return TLSDissector::parseServerHello(body, baseOffset); });
}

std::expected<Context, TLSStreamDecryption::ContextFailure> TLSStreamDecryption::context(Data clientRandom,
                                                                                         const ServerHelloInfo& serverHello)
{
    const bool isTLS13 = serverHello.supportedVersion == 0x0304;
    if (!isTLS13 && serverHello.legacyVersion != 0x0303) return std::unexpected(ContextFailure::unsupportedVersion);
    return Context{.clientRandom = std::move(clientRandom),
                   .serverRandom = serverHello.serverRandom,
                   .cipherSuite = serverHello.cipherSuite,
                   .isTLS13 = isTLS13};
}

std::expected<Context, TLSStreamDecryption::ContextFailure> TLSStreamDecryption::context(const TCPStream& stream)
{
    auto clientRandom = firstClientRandom(stream.clientToServerData);
    if (!clientRandom) return std::unexpected(ContextFailure::noHandshake);
    const auto serverHello = firstServerHello(stream.serverToClientData);
    if (!serverHello) return std::unexpected(ContextFailure::noHandshake);
    return context(std::move(*clientRandom), *serverHello);
}

bool TLSStreamDecryption::hasKeyMaterial(const Context& context, const TLSKeyLog& keyLog)
{
    return std::ranges::any_of(std::array{Direction::clientToServer, Direction::serverToClient}, [&](Direction direction) {
        return keyLog.secrets.length(secretLabels(context, direction).application, context.clientRandom).has_value();
    });
}

std::optional<DirectionPlain> TLSStreamDecryption::decrypt(Direction direction, const TCPStream& stream, const Context& context,
                                                           const TLSKeyLog& keyLog)
{
    const StreamData& data = stream.data(direction);
    auto walk = directionWalk(data, direction, context, keyLog);
    if (!walk) return std::nullopt;
    return joined(std::move(*walk), data, byteIndex(stream, direction));
}

std::optional<DirectionPlain> TLSStreamDecryption::decryptToReadInPieces(Direction direction, const TCPStream& stream,
                                                                         const Context& context, const TLSKeyLog& keyLog)
{
    const auto plaintext = std::make_shared<TLSPlaintext>(
        stream.data(direction), [=](const StreamData& captured) { return directionWalk(captured, direction, context, keyLog); });
    auto locator = std::make_shared<PlaintextLocator>(byteIndex(stream, direction));
    plaintext->open([&](ByteRange body, std::int64_t end) { locator->add(end, body); });
    const std::int64_t size = plaintext->size();
    if (size == 0) return std::nullopt;
    return DirectionPlain{.data = StreamData(plaintext, size), .index = ByteToSegmentIndex(std::move(locator))};
}

std::optional<DirectionPlain> TLSStreamDecryption::decryptTLS12(Direction direction, const TCPStream& stream, const Context& context)
{
    Context withVersion = context;
    withVersion.isTLS13 = false;
    return decrypt(direction, stream, withVersion, TLSKeyLogStore::shared().current());
}

std::optional<DirectionPlain> TLSStreamDecryption::decryptTLS13(Direction direction, const TCPStream& stream, const Data& clientRandom,
                                                                std::uint16_t cipherSuite)
{
    const Context context{.clientRandom = clientRandom, .serverRandom = {}, .cipherSuite = cipherSuite, .isTLS13 = true};
    return decrypt(direction, stream, context, TLSKeyLogStore::shared().current());
}

std::optional<DirectionPlain> TLSStreamDecryption::plainDirection(const std::vector<TLS12DecryptedRecord>& records)
{
    return joined(records, [](const TLS12DecryptedRecord&) { return true; });
}

std::optional<DirectionPlain> TLSStreamDecryption::plainDirection(const std::vector<TLS13DecryptedRecord>& records)
{
    return joined(records, [](const TLS13DecryptedRecord& record) {
        return record.innerType == std::to_underlying(TLSContentType::applicationData);
    });
}

std::optional<TLSDirectionWalk> TLSStreamDecryption::directionWalk(const StreamData& data, Direction direction, const Context& context,
                                                                   const TLSKeyLog& keyLog)
{
    if (context.isTLS13) {
        if (auto sequence = beginTLS13(direction, context, keyLog)) return TLSDirectionWalk(data, std::move(*sequence));
    } else {
        if (auto sequence = beginTLS12(direction, context, keyLog)) return TLSDirectionWalk(data, std::move(*sequence));
    }
    return std::nullopt;
}

}  // namespace sealscope
