// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamParser.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSEntryReader.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSMessageMerge.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <deque>
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

/// The same part by part; whether there is any of it.
bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    if (context.host) return context.host->tellDecrypted(stream, context, visit);
    auto interpretation = TLSDecryptionProbe::decryptedInterpretation(stream);
    if (!interpretation) return false;
    StreamPart whole = partOf(*std::move(interpretation));
    visit(whole);
    return true;
}

/// The interpretation of a stream by the items of both directions, and by its decrypted messages.
StreamInterpretation interpretationOf(std::vector<Entry> sorted, std::optional<StreamPart> decrypted)
{
    std::ranges::stable_sort(sorted, precedes);
    auto pairings = TLSStreamParser::handshakePairings(sorted);
    std::vector<StreamMessage> messages;
    messages.reserve(sorted.size());
    for (Entry& entry : sorted) messages.push_back(std::move(entry.message));
    if (!decrypted) return {std::move(messages), std::move(pairings)};

    std::vector<StreamMessage> merged;
    std::ranges::remove_copy_if(messages, std::back_inserter(merged), [](const StreamMessage& message) {
        return message.summary.starts_with(TLSStreamParser::applicationDataPrefix);
    });
    std::ranges::copy(decrypted->messages, std::back_inserter(merged));
    std::ranges::stable_sort(merged, isEarlier);

    std::vector<Pairing> joined = TLSStreamParser::remapPairings(pairings.value_or(std::vector<Pairing>{}), messages, merged);
    std::ranges::copy(TLSStreamParser::remapPairings(decrypted->pairings, decrypted->messages, merged), std::back_inserter(joined));
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

/// Pairs the first Client Hello with the first Server Hello of a stream.
class HelloPairing {
public:
    explicit HelloPairing(const TLSEntryMerge& merge) : request_(merge.clientHello()), reply_(merge.serverHello()) {}
    /// To be told of each item that is shown, and where it stands among all messages.
    void take(const TLSEntryMerge::Item& item, std::int64_t position, const StreamMessage& message)
    {
        if (item == request_) {
            pairing_.requestIndex = position;
            pairing_.summary = message.summary;
        }
        if (item == reply_) {
            pairing_.replyIndex = position;
            pairing_.status = PairingStatus::matched;
        }
        isDue_ = request_ && item == std::max(*request_, reply_.value_or(*request_));
    }
    /// The pairing, behind the later of its messages.
    std::optional<Pairing> takePairing() { return std::exchange(isDue_, false) ? std::optional(pairing_) : std::nullopt; }

private:
    std::optional<TLSEntryMerge::Item> request_, reply_;
    Pairing pairing_;
    bool isDue_ = false;
};

/// Puts what `interpretationOf` makes of a stream together part by part, as decrypted messages come.
class PartMerge {
public:
    PartMerge(const TCPStream& stream, const StreamPartVisitor& visit) : merge_(stream), hellos_(merge_), visit_(visit)
    {
        reader_ = merge_.next();
    }

    /// Adds a part of the decrypted messages; false when no more is wanted.
    bool take(StreamPart& part)
    {
        isDecrypted_ = true;
        // Their messages may stand in any order.
        std::vector<std::size_t> order(part.messages.size());
        std::iota(order.begin(), order.end(), std::size_t{0});
        std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) { return isEarlier(part.messages[a], part.messages[b]); });
        std::vector<std::size_t> ranks(order.size());
        for (std::size_t rank = 0; rank < order.size(); ++rank) ranks[order[rank]] = rank;
        // A pairing is told with the later of its messages.
        std::vector<std::pair<std::size_t, Pairing>> due;
        const std::int64_t first = firstKnown_ + std::ssize(positions_);
        const auto rankOf = [&](std::int64_t index) {
            const std::int64_t place = index - first;
            return place >= 0 && place < std::ssize(ranks) ? std::optional(ranks[static_cast<std::size_t>(place)]) : std::nullopt;
        };
        const auto isThere = [&](std::int64_t index) { return index >= firstKnown_ && index < first + std::ssize(ranks); };
        for (Pairing& pairing : part.pairings) {
            if (!isThere(pairing.requestIndex)) continue;
            if (pairing.replyIndex && !isThere(*pairing.replyIndex)) pairing.replyIndex.reset();
            pairing.status = pairing.replyIndex ? PairingStatus::matched : PairingStatus::unmatched;
            const std::size_t request = rankOf(pairing.requestIndex).value_or(0);
            due.emplace_back(std::max(request, pairing.replyIndex.and_then(rankOf).value_or(0)), std::move(pairing));
        }
        std::ranges::stable_sort(due, {}, &std::pair<std::size_t, Pairing>::first);
        auto next = due.begin();
        const std::size_t known = positions_.size();
        positions_.resize(known + ranks.size());
        const auto positionOf = [&](std::int64_t index) -> std::int64_t& {
            return positions_[static_cast<std::size_t>(index - firstKnown_)];
        };
        for (std::size_t rank = 0; rank < order.size(); ++rank) {
            StreamMessage& message = part.messages[order[rank]];
            if (!takeCaptured(std::pair(message.timestamp, message.direction))) return false;
            positions_[known + order[rank]] = next_;
            add(std::move(message));
            for (; next != due.end() && next->first == rank; ++next) {
                Pairing& pairing = part_.pairings.emplace_back(std::move(next->second));
                pairing.requestIndex = positionOf(pairing.requestIndex);
                if (pairing.replyIndex) pairing.replyIndex = positionOf(*pairing.replyIndex);
            }
            if (!handOverMany()) return false;
        }
        // Of the parts before, a few are enough: a reply does not come much later than its request.
        constexpr std::size_t mostKnown = 16'384;
        for (; positions_.size() > mostKnown; ++firstKnown_) positions_.pop_front();
        return true;
    }

    void setDecrypted() { isDecrypted_ = true; }
    /// Adds what is left of the captured messages.
    void end()
    {
        if (isWanted_ && takeCaptured(std::nullopt) && !part_.messages.empty()) handOver();
    }

private:
    /// Adds the captured messages up to a time and direction, or all that are left.
    bool takeCaptured(std::optional<std::pair<double, Direction>> upTo)
    {
        for (; reader_ && (!upTo || std::pair(reader_->timestamp(), reader_->direction()) <= *upTo); reader_ = merge_.next()) {
            if (isDecrypted_ && reader_->isApplicationData()) continue;
            const auto item = TLSEntryMerge::itemAt(*reader_);
            Entry entry = reader_->entry();
            hellos_.take(item, next_, entry.message);
            add(std::move(entry.message));
            if (auto pairing = hellos_.takePairing()) part_.pairings.push_back(*std::move(pairing));
            if (!handOverMany()) return false;
        }
        return true;
    }

    void add(StreamMessage message)
    {
        bytes_ += message.heldBytes();
        part_.messages.push_back(std::move(message));
        ++next_;
    }

    bool handOverMany()
    {
        // Parts of that size cost little, and hold little.
        constexpr std::size_t many = 512, large = 1 << 20;
        return (part_.messages.size() < many && bytes_ < large) || handOver();
    }
    bool handOver()
    {
        StreamPart part = std::exchange(part_, {.first = next_});
        bytes_ = 0;
        return isWanted_ = visit_(part);
    }

    TLSEntryMerge merge_;
    HelloPairing hellos_;
    const StreamPartVisitor& visit_;
    TLSEntryReader* reader_ = nullptr;    ///< stands on the next captured message
    std::int64_t next_ = 0;               ///< messages so far
    std::deque<std::int64_t> positions_;  ///< of the latest decrypted messages, in the whole
    std::int64_t firstKnown_ = 0;         ///< the first of those, among the decrypted
    bool isDecrypted_ = false;
    bool isWanted_ = true;  ///< more parts
    StreamPart part_;
    std::size_t bytes_ = 0;  ///< that its messages take
};

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
        // Most messages lie in one record.
        if (fragments.size() == 1) {
            ByteLocation location = stream.locate(piece, direction);
            return {piece, std::move(location.packetIds), location.timestamp};
        }
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
    auto decrypted = decryptedPart(stream, context);
    return interpretationOf(std::move(all), decrypted ? std::optional(partOf(*std::move(decrypted))) : std::nullopt);
}

void TLSStreamParser::forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    auto few = fewEntries(stream);
    std::optional<StreamPart> held;  // the first decrypted part, as long as it is the only one
    std::optional<PartMerge> merge;
    const auto take = [&](StreamPart& part) {
        if (few && !held && !merge) {
            held = std::move(part);
            return true;
        }
        if (!merge) {
            merge.emplace(stream, visit);
            if (held && !merge->take(*held)) return false;
        }
        return merge->take(part);
    };
    const bool isDecrypted = tellDecrypted(stream, context, take);
    if (few && !merge) {
        if (isDecrypted && !held) held.emplace();
        StreamPart whole = partOf(interpretationOf(std::move(*few), std::move(held)));
        visit(whole);
        return;
    }
    if (!merge) merge.emplace(stream, visit);
    if (isDecrypted) merge->setDecrypted();
    merge->end();
}

}  // namespace sealscope
