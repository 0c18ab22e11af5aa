// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamDecryption.h"

#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSKeyLogStore.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSWalk.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
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
    forEachRecord(bytes, [&](const TLSRecord& record) {
        if (record.isTruncated || record.contentType != std::to_underlying(TLSContentType::handshake)) return true;
        const DataView body = bytes.gather(record.bodyOffset, record.declaredLength, gathered);
        forEachHandshakeMessage(body, record.bodyOffset, [&](const TLSHandshakeMessage& message) {
            if (message.isTruncated || message.handshakeType != std::to_underlying(type)) return true;
            found = parse(body.sub(message.bodyOffset - record.bodyOffset, message.length), message.bodyOffset);
            return !found;
        });
        return !found;
    });
    return found;
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
using Memory = std::unique_ptr<std::uint8_t[], Free>;

/// What the walk opens, in one piece of memory. A record's plaintext is shorter than the record, so a direction's plaintext
/// is shorter than the direction: records are opened straight to where they belong, and what is left over is given back.
/// The memory that nothing was written to never existed.
std::optional<DirectionPlain> joined(TLSDirectionWalk walk, const StreamData& data, const ByteToSegmentIndex& captured)
{
    Memory memory(static_cast<std::uint8_t*>(std::malloc(static_cast<std::size_t>(data.size()))));
    if (!memory) return std::nullopt;
    auto locator = std::make_shared<PlaintextLocator>(captured);
    std::int64_t size = 0;
    for (auto step = TLSDirectionWalk::Step::opened; step != TLSDirectionWalk::Step::end;) {
        step = walk.next(memory.get() + size);
        if (step != TLSDirectionWalk::Step::opened) continue;
        if (walk.innerType() != std::to_underlying(TLSContentType::applicationData)) continue;
        size += walk.plaintext().size();
        locator->add(size, {walk.record().bodyOffset, walk.record().endOffset()});
    }
    if (size == 0) return std::nullopt;
    if (auto* shrunk = static_cast<std::uint8_t*>(std::realloc(memory.get(), static_cast<std::size_t>(size)))) {
        (void)memory.release();
        memory.reset(shrunk);
    }
    const std::uint8_t* const bytes = memory.get();
    return DirectionPlain{.data = Data(std::shared_ptr<const std::uint8_t[]>(std::move(memory)), {bytes, size}),
                          .index = ByteToSegmentIndex(std::move(locator))};
}

}  // namespace

TLSSecretLabels secretLabels(bool isTLS13, Direction direction)
{
    if (!isTLS13) return {"CLIENT_RANDOM", ""};
    if (direction == Direction::serverToClient) return {"SERVER_TRAFFIC_SECRET_0", "SERVER_HANDSHAKE_TRAFFIC_SECRET"};
    return {"CLIENT_TRAFFIC_SECRET_0", "CLIENT_HANDSHAKE_TRAFFIC_SECRET"};
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
        return keyLog.secrets.length(secretLabels(context.isTLS13, direction).application, context.clientRandom).has_value();
    });
}

std::optional<DirectionPlain> TLSStreamDecryption::decrypt(Direction direction, const TCPStream& stream, const Context& context,
                                                           const TLSKeyLog& keyLog)
{
    const StreamData& data = stream.data(direction);
    auto walk = TLSDirectionWalk::begin(data, direction, context, keyLog);
    if (!walk) return std::nullopt;
    return joined(std::move(*walk), data, direction == Direction::serverToClient ? stream.serverByteIndex : stream.clientByteIndex);
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
    std::vector<std::uint8_t> bytes;
    std::vector<ByteSpan> spans;
    for (const TLS12DecryptedRecord& record : records) {
        const auto start = static_cast<std::int64_t>(bytes.size());
        bytes.insert(bytes.end(), record.plaintext.view().begin(), record.plaintext.view().end());
        if (!record.packetIds.empty())
            spans.push_back({{start, static_cast<std::int64_t>(bytes.size())}, record.packetIds, record.timestamp});
    }
    if (bytes.empty()) return std::nullopt;
    return DirectionPlain{.data = Data(std::move(bytes)), .index = ByteToSegmentIndex(std::move(spans))};
}

}  // namespace sealscope
