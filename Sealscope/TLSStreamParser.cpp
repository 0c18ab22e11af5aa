// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamParser.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSEntryReader.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSMessageMerge.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <numeric>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Entry = TLSStreamParser::Entry;

bool precedes(const Entry& a, const Entry& b)
{
    return std::tie(a.timestamp, a.directionOrder, a.firstByteOffset) < std::tie(b.timestamp, b.directionOrder, b.firstByteOffset);
}

std::pair<std::string, std::vector<DetailRow>> clientHelloSummary(std::string name, DataView body, std::int64_t baseOffset)
{
    std::vector<DetailRow> detail;
    if (const auto hello = TLSDissector::parseClientHello(body, baseOffset)) {
        detail.push_back({"Version", versionName(hello->legacyVersion)});
        if (hello->serverName && !hello->serverName->empty()) {
            detail.push_back({"Server Name", *hello->serverName});
            name += " (" + *hello->serverName + ')';
        }
        if (!hello->alpnProtocols.empty()) detail.push_back({"ALPN", fmt::format("{}", fmt::join(hello->alpnProtocols, ", "))});
        if (!hello->cipherSuites.empty()) detail.push_back({"Cipher Suites", fmt::format_int(hello->cipherSuites.size()).str()});
    }
    return {std::move(name), std::move(detail)};
}

std::pair<std::string, std::vector<DetailRow>> serverHelloSummary(std::string name, DataView body, std::int64_t baseOffset)
{
    std::vector<DetailRow> detail;
    if (const auto hello = TLSDissector::parseServerHello(body, baseOffset)) {
        std::string suite = cipherSuiteName(hello->cipherSuite);
        name += " (" + suite + ')';
        detail.push_back({"Version", versionName(hello->supportedVersion.value_or(hello->legacyVersion))});
        detail.push_back({"Cipher Suite", std::move(suite)});
    }
    return {std::move(name), std::move(detail)};
}

/// How many certificates there are, and whose the first is.
std::vector<DetailRow> certificateRows(DataView body, std::int64_t baseOffset)
{
    std::int64_t count = 0;
    DataView first;
    forEachCertificate(body, baseOffset, [&](DataView der, std::int64_t) {
        if (count++ == 0) first = der;
        return true;
    });
    std::vector<DetailRow> detail{{"Certificates", fmt::format_int(count).str()}};
    if (count == 0) return detail;
    if (auto summary = TLSDissector::certSummary(first)) {
        const auto add = [&](const char* name, std::optional<std::string>& value) {
            if (value) detail.push_back({name, std::move(*value)});
        };
        add("Subject", summary->subjectCN);
        add("Issuer", summary->issuerCN);
        add("Not Before", summary->notBefore);
        add("Not After", summary->notAfter);
    }
    return detail;
}

/// Whether a message goes before another in the merged list. On a tie the captured one does, and the one that stood before.
bool isEarlier(const StreamMessage& a, const StreamMessage& b)
{
    return std::tie(a.timestamp, a.direction) < std::tie(b.timestamp, b.direction);
}

/// What a stream carries under encryption: a session has secrets, interpreters and probes of its own.
std::optional<StreamInterpretation> decryptedPart(const TCPStream& stream, const StreamContext& context)
{
    return context.host ? context.host->decryptedInterpretation(stream, context) : TLSDecryptionProbe::decryptedInterpretation(stream);
}

/// The interpretation of a stream by the items of both directions.
StreamInterpretation interpretationOf(std::vector<Entry> sorted, const TCPStream& stream, const StreamContext& context)
{
    std::ranges::stable_sort(sorted, precedes);
    auto pairings = TLSStreamParser::handshakePairings(sorted);
    std::vector<StreamMessage> messages;
    messages.reserve(sorted.size());
    for (Entry& entry : sorted) messages.push_back(std::move(entry.message));

    const auto decrypted = decryptedPart(stream, context);
    if (!decrypted) return {std::move(messages), std::move(pairings)};

    std::vector<StreamMessage> merged;
    std::ranges::remove_copy_if(messages, std::back_inserter(merged), [](const StreamMessage& message) {
        return message.summary.starts_with(TLSStreamParser::applicationDataPrefix);
    });
    std::ranges::copy(decrypted->messages, std::back_inserter(merged));
    std::ranges::stable_sort(merged, isEarlier);

    std::vector<Pairing> joined = TLSStreamParser::remapPairings(pairings.value_or(std::vector<Pairing>{}), messages, merged);
    std::ranges::copy(TLSStreamParser::remapPairings(decrypted->pairings.value_or(std::vector<Pairing>{}), decrypted->messages, merged),
                      std::back_inserter(joined));
    return {std::move(merged), joined.empty() ? std::nullopt : std::optional(std::move(joined))};
}

/// All items of a stream, when they are few.
std::optional<std::vector<Entry>> fewEntries(const TCPStream& stream)
{
    constexpr std::size_t few = 4'096;
    std::vector<Entry> entries;
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        for (TLSEntryReader reader(direction, stream); reader.next();) {
            if (entries.size() == few) return std::nullopt;
            entries.push_back(reader.entry());
        }
    }
    return entries;
}

/// Finds the first Client Hello and the first Server Hello of messages that go by.
class HelloPairing {
public:
    void take(const TLSEntryReader& reader, std::int64_t position)
    {
        const auto isFirst = [&](TLSHandshakeType type, const std::optional<std::int64_t>& found) {
            return !found && reader.handshakeType() == std::to_underlying(type);
        };
        if (isFirst(TLSHandshakeType::clientHello, request_)) {
            request_ = position;
            isNewRequest_ = true;
        } else if (isFirst(TLSHandshakeType::serverHello, reply_)) {
            reply_ = position;
        }
    }
    /// Whether the last that was taken is the Client Hello, whose summary is asked for.
    bool isNewRequest() { return std::exchange(isNewRequest_, false); }
    void setSummary(std::string summary) { summary_ = std::move(summary); }
    std::vector<Pairing> pairings() const
    {
        if (!request_) return {};
        return {{*request_, reply_, summary_, reply_ ? PairingStatus::matched : PairingStatus::unmatched}};
    }

private:
    std::optional<std::int64_t> request_, reply_;
    bool isNewRequest_ = false;
    std::string summary_;
};

/// What `interpretationOf` makes of a stream, message by message.
std::optional<std::vector<Pairing>> mergedMessages(const TCPStream& stream, const StreamContext& context, const StreamMessageVisitor& visit)
{
    auto decrypted = decryptedPart(stream, context);
    const bool isDecrypted = decrypted.has_value();
    auto [messages, pairings] = std::move(decrypted).value_or(StreamInterpretation{});
    std::vector<std::size_t> order(messages.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) { return isEarlier(messages[a], messages[b]); });

    std::int64_t position = 0;
    std::vector<std::int64_t> positions(messages.size());  // of the decrypted messages, in the whole
    auto next = order.begin();
    // Hands over the decrypted messages before a time and direction, or all that are left.
    const auto decryptedBefore = [&](std::optional<std::pair<double, Direction>> key) {
        for (; next != order.end(); ++next) {
            StreamMessage& message = messages[*next];
            if (key && std::pair(message.timestamp, message.direction) >= *key) return true;
            positions[*next] = position++;
            if (visit && !visit(message)) return false;
        }
        return true;
    };

    HelloPairing hellos;
    TLSEntryMerge merge(stream);
    while (TLSEntryReader* const reader = merge.next()) {
        if (isDecrypted && reader->isApplicationData()) continue;
        if (!decryptedBefore(std::pair(reader->timestamp(), reader->direction()))) return std::nullopt;
        hellos.take(*reader, position++);
        const bool isRequest = hellos.isNewRequest();
        if (!visit && !isRequest) continue;
        Entry entry = reader->entry();
        if (isRequest) hellos.setSummary(entry.message.summary);
        if (visit && !visit(entry.message)) return std::nullopt;
    }
    if (!decryptedBefore(std::nullopt)) return std::nullopt;

    std::vector<Pairing> joined = hellos.pairings();
    const auto whole = [&](std::int64_t index) {
        const bool isThere = index >= 0 && index < std::ssize(positions);
        return isThere ? std::optional(positions[static_cast<std::size_t>(index)]) : std::nullopt;
    };
    for (Pairing& pairing : std::move(pairings).value_or(std::vector<Pairing>{})) {
        const auto request = whole(pairing.requestIndex);
        const auto reply = pairing.replyIndex.and_then(whole);
        if (request)
            joined.push_back({*request, reply, std::move(pairing.summary), reply ? PairingStatus::matched : PairingStatus::unmatched});
    }
    return joined.empty() ? std::nullopt : std::optional(std::move(joined));
}

}  // namespace

std::vector<Entry> TLSStreamParser::entries(Direction direction, const TCPStream& stream)
{
    std::vector<Entry> output;
    for (TLSEntryReader reader(direction, stream); reader.next();) output.push_back(reader.entry());
    return output;
}

std::vector<Entry> TLSStreamParser::handshakeEntries(const std::vector<TLSRecord>& records, const StreamData& data, Direction direction,
                                                     const TCPStream& stream)
{
    std::vector<Entry> output;
    TLSHandshakeRun run(data, direction, stream);
    for (const TLSRecord& record : records)
        for (run.add(record); run.next();) output.push_back(run.entry(run.locate()));
    return output;
}

std::optional<Entry> TLSStreamParser::applicationDataEntry(const std::vector<TLSRecord>& records, Direction direction,
                                                           const TCPStream& stream)
{
    TLSApplicationDataRun run;
    for (const TLSRecord& record : records) run.add(record);
    if (run.isEmpty()) return std::nullopt;
    return run.entry(direction, stream.locate(run.range(), direction));
}

TLSStreamParser::LocatedSpan TLSStreamParser::locateSpan(ByteRange concatRange, const std::vector<HandshakeFragment>& fragments,
                                                         Direction direction, const TCPStream& stream)
{
    LocatedSpan span;
    PacketIdCollector packets(span.packetIds);
    for (const HandshakeFragment& fragment : fragments) {
        const ByteRange overlap{std::max(concatRange.lower, fragment.concatStart),
                                std::min(concatRange.upper, fragment.concatStart + fragment.length)};
        if (overlap.isEmpty()) continue;
        const std::int64_t toStream = fragment.streamStart - fragment.concatStart;
        const ByteRange piece{overlap.lower + toStream, overlap.upper + toStream};
        const ByteRange before = span.streamRange.value_or(piece);
        span.streamRange = ByteRange{std::min(before.lower, piece.lower), std::max(before.upper, piece.upper)};

        const ByteLocation location = stream.locate(piece, direction);
        for (const std::int64_t packetId : location.packetIds) packets.add(packetId);
        if (location.timestamp && (!span.timestamp || *location.timestamp < *span.timestamp)) span.timestamp = location.timestamp;
    }
    return span;
}

std::pair<std::string, std::vector<DetailRow>> TLSStreamParser::handshakeSummary(std::uint8_t type, DataView body, std::int64_t baseOffset)
{
    std::string name = handshakeSummaryName(type);
    const auto known = handshakeTypeOf(type);
    if (!known) return {std::move(name), {}};
    switch (*known) {
    case TLSHandshakeType::clientHello: return clientHelloSummary(std::move(name), body, baseOffset);
    case TLSHandshakeType::serverHello: return serverHelloSummary(std::move(name), body, baseOffset);
    case TLSHandshakeType::certificate: return {std::move(name), certificateRows(body, baseOffset)};
    default: return {std::move(name), {}};
    }
}

std::optional<std::vector<Pairing>> TLSStreamParser::handshakePairings(const std::vector<Entry>& entries)
{
    const auto positionOf = [&](TLSHandshakeType type) -> std::optional<std::int64_t> {
        const auto found = std::ranges::find(entries, std::optional(static_cast<std::uint8_t>(type)), &Entry::handshakeType);
        return found == entries.end() ? std::nullopt : std::optional(found - entries.begin());
    };
    const auto request = positionOf(TLSHandshakeType::clientHello);
    if (!request) return std::nullopt;
    const auto reply = positionOf(TLSHandshakeType::serverHello);
    return {{Pairing{.requestIndex = *request,
                     .replyIndex = reply,
                     .summary = entries[static_cast<std::size_t>(*request)].message.summary,
                     .status = reply ? PairingStatus::matched : PairingStatus::unmatched}}};
}

std::vector<Pairing> TLSStreamParser::remapPairings(const std::vector<Pairing>& pairings, const std::vector<StreamMessage>& from,
                                                    const std::vector<StreamMessage>& into)
{
    if (pairings.empty()) return {};
    const auto hash = [](const UUID& id) {
        return std::hash<std::string_view>{}({reinterpret_cast<const char*>(id.bytes.data()), id.bytes.size()});
    };
    std::unordered_map<UUID, std::int64_t, decltype(hash)> positions(into.size(), hash);
    for (std::int64_t position = 0; const StreamMessage& message : into) positions.try_emplace(message.id, position++);
    const auto remapped = [&](std::optional<std::int64_t> index) -> std::optional<std::int64_t> {
        if (!index || *index < 0 || *index >= static_cast<std::int64_t>(from.size())) return std::nullopt;
        const auto found = positions.find(from[static_cast<std::size_t>(*index)].id);
        return found == positions.end() ? std::nullopt : std::optional(found->second);
    };

    std::vector<Pairing> result;
    for (const Pairing& pairing : pairings) {
        const auto request = remapped(pairing.requestIndex);
        if (!request) continue;
        const auto reply = remapped(pairing.replyIndex);
        result.push_back({*request, reply, pairing.summary, reply ? PairingStatus::matched : PairingStatus::unmatched});
    }
    return result;
}

StreamInterpretation TLSStreamParser::interpretation(const TCPStream& stream, const StreamContext& context)
{
    std::vector<Entry> all = entries(Direction::clientToServer, stream);
    std::ranges::move(entries(Direction::serverToClient, stream), std::back_inserter(all));
    return interpretationOf(std::move(all), stream, context);
}

std::optional<std::vector<Pairing>> TLSStreamParser::forEachMessage(const TCPStream& stream, const StreamContext& context,
                                                                    const StreamMessageVisitor& visit)
{
    auto few = fewEntries(stream);
    if (!few) return mergedMessages(stream, context, visit);
    StreamInterpretation interpretation = interpretationOf(std::move(*few), stream, context);
    if (visit)
        for (StreamMessage& message : interpretation.messages)
            if (!visit(message)) return std::nullopt;
    return std::move(interpretation.pairings);
}

}  // namespace sealscope
