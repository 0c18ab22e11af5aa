// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamParser.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSWalk.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string_view>
#include <tuple>
#include <unordered_map>

// A direction is walked record by record, once. Two kinds of records gather into runs: application data, which becomes one
// item a run, and handshake records, whose bodies are laid end to end so that a message may cross records. Whatever breaks a
// run flushes it. Take the records H H C H A A X A (handshake, change cipher spec, application data, unknown type):
//
//     H H     one handshake run; its complete messages are items, an incomplete last one is not shown
//     C       breaks it, and is an item itself
//     H       a new run: its first byte begins a new message, whatever the first run left over
//     A A X A one run of application data: an unknown type ends a handshake run, but not this one
//
// At any time at most one of the two runs holds anything.

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Entry = TLSStreamParser::Entry;

constexpr std::string_view applicationDataPrefix = "Application Data";

ByteRange bodyRange(const TLSRecord& record) { return {record.bodyOffset, record.endOffset()}; }

/// What the messages of captured records have in common: no body, no file name, not decrypted.
Entry makeEntry(Direction direction, StreamMessageKind kind, std::pair<std::string, std::vector<DetailRow>> text,
                std::optional<StreamBodyHint> bodyHint, std::optional<ByteRange> range, ByteLocation location,
                std::optional<std::uint8_t> handshakeType = {})
{
    const double timestamp = location.timestamp.value_or(0);
    return Entry{.message = {.direction = direction,
                             .kind = kind,
                             .summary = std::move(text.first),
                             .detail = std::move(text.second),
                             .bodyHint = bodyHint,
                             .byteRange = range,
                             .packetIds = std::move(location.packetIds),
                             .timestamp = timestamp},
                 .timestamp = timestamp,
                 .directionOrder = direction == Direction::clientToServer ? 0 : 1,
                 .firstByteOffset = range ? range->lower : 0,
                 .handshakeType = handshakeType};
}

Entry changeCipherSpecEntry(const TLSRecord& record, Direction direction, const TCPStream& stream)
{
    const ByteRange range = bodyRange(record);
    return makeEntry(direction, StreamMessageKind::handshake, {"Change Cipher Spec", {}}, std::nullopt, range,
                     stream.locate(range, direction));
}

/// Level and description as they stand in the direction's data: those of a record shorter than two bytes are read from
/// what follows it, and those of an encrypted alert are the first two bytes of its ciphertext.
std::pair<std::string, std::vector<DetailRow>> alertText(const TLSRecord& record, StreamReader& bytes)
{
    if (bytes.size() < record.bodyOffset + 2) return {"Alert", {}};
    const char* const level = bytes.u8(record.bodyOffset) == 2 ? "Fatal" : "Warning";
    const std::string description = fmt::format_int(bytes.u8(record.bodyOffset + 1)).str();
    return {fmt::format("Alert ({}, {})", level, description), {{"Level", level}, {"Description", description}}};
}

Entry alertEntry(const TLSRecord& record, StreamReader& bytes, Direction direction, const TCPStream& stream)
{
    const ByteRange range = bodyRange(record);
    return makeEntry(direction, StreamMessageKind::data, alertText(record, bytes), std::nullopt, range, stream.locate(range, direction));
}

/// A run of application-data records, as much of it as its item shows.
class ApplicationDataRun {
public:
    void add(const TLSRecord& record)
    {
        if (records_ == 0) range_.lower = record.bodyOffset;
        range_.upper = record.endOffset();
        bytes_ += record.declaredLength;
        ++records_;
    }

    /// The run's entry, if it has one; the run is empty afterwards.
    std::optional<Entry> flush(Direction direction, const TCPStream& stream)
    {
        if (records_ == 0) return std::nullopt;
        const std::string records = fmt::format_int(records_).str();
        const std::string bytes = fmt::format_int(bytes_).str();
        Entry entry = makeEntry(direction, StreamMessageKind::data,
                                {fmt::format("{} ({} records, {} bytes, encrypted)", applicationDataPrefix, records, bytes),
                                 {{"Records", records}, {"Bytes", bytes}}},
                                StreamBodyHint::binary(), range_, stream.locate(range_, direction));
        *this = {};
        return entry;
    }

private:
    ByteRange range_;
    std::int64_t records_ = 0;
    std::int64_t bytes_ = 0;
};

/// An unbroken run of handshake records. Messages leave it as soon as they are complete, so that it never holds more than
/// one unfinished message, however long the run.
class HandshakeRun {
public:
    HandshakeRun(const StreamData& data, Direction direction, const TCPStream& stream) : data_(data), direction_(direction), stream_(stream)
    {}

    void add(const TLSRecord& record, std::vector<Entry>& output)
    {
        if (record.declaredLength == 0) return;
        fragments_.push_back({.concatStart = concatEnd_, .streamStart = record.bodyOffset, .length = record.declaredLength});
        concatEnd_ += record.declaredLength;

        const DataView body = data_.gather(record.bodyOffset, record.declaredLength, gathered_);
        if (pending_.empty()) {
            const std::int64_t taken = takeMessages(body, output);
            pending_.assign(body.begin() + taken, body.end());
        } else {
            pending_.insert(pending_.end(), body.begin(), body.end());
            if (concatEnd_ < wanted_) return;
            const std::int64_t taken = takeMessages(pending_, output);
            pending_.erase(pending_.begin(), pending_.begin() + taken);
        }
        if (pending_.empty())
            fragments_.clear();
        else
            std::erase_if(fragments_, [&](const auto& fragment) { return fragment.concatStart + fragment.length <= concatStart_; });
    }

    /// Forgets a message that is not complete.
    void flush()
    {
        pending_.clear();
        fragments_.clear();
        concatStart_ = concatEnd_ = wanted_ = 0;
    }

private:
    /// Gives out the complete messages at the front of `bytes`, which begin at `concatStart_`; returns how many bytes they took.
    std::int64_t takeMessages(DataView bytes, std::vector<Entry>& output)
    {
        std::int64_t taken = 0;
        const std::int64_t base = concatStart_;
        forEachHandshakeMessage(bytes, base, [&](const TLSHandshakeMessage& message) {
            const ByteRange span{message.bodyOffset - TLSHandshakeMessage::headerLength, message.bodyOffset + message.length};
            wanted_ = span.upper;
            if (message.isTruncated) return false;
            const DataView body = bytes.sub(message.bodyOffset - base, message.length);
            TLSStreamParser::LocatedSpan located = TLSStreamParser::locateSpan(span, fragments_, direction_, stream_);
            output.push_back(makeEntry(direction_, StreamMessageKind::handshake,
                                       TLSStreamParser::handshakeSummary(message.handshakeType, body, message.bodyOffset), std::nullopt,
                                       located.streamRange, {located.timestamp, std::move(located.packetIds)}, message.handshakeType));
            taken = span.upper - base;
            return true;
        });
        concatStart_ += taken;
        return taken;
    }

    const StreamData& data_;
    Direction direction_;
    const TCPStream& stream_;
    std::vector<TLSStreamParser::HandshakeFragment> fragments_;  ///< those that the unfinished message touches
    std::vector<std::uint8_t> pending_;                          ///< its bytes so far
    std::vector<std::uint8_t> gathered_;
    std::int64_t concatStart_ = 0;  ///< where pending_ begins in the run's reassembled bytes
    std::int64_t concatEnd_ = 0;
    std::int64_t wanted_ = 0;  ///< where the unfinished message ends; nothing completes before
};

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

}  // namespace

std::vector<Entry> TLSStreamParser::entries(Direction direction, const TCPStream& stream)
{
    const StreamData& data = stream.data(direction);
    StreamReader bytes(data);
    std::vector<Entry> output;
    HandshakeRun handshake(data, direction, stream);
    ApplicationDataRun applicationData;
    const auto flushApplicationData = [&] {
        if (auto entry = applicationData.flush(direction, stream)) output.push_back(std::move(*entry));
    };

    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.isTruncated) return false;
        const auto type = contentTypeOf(record.contentType);
        if (!type) {
            handshake.flush();
            return true;
        }
        switch (*type) {
        case TLSContentType::changeCipherSpec:
            handshake.flush();
            flushApplicationData();
            output.push_back(changeCipherSpecEntry(record, direction, stream));
            break;
        case TLSContentType::alert:
            handshake.flush();
            flushApplicationData();
            output.push_back(alertEntry(record, bytes, direction, stream));
            break;
        case TLSContentType::handshake:
            flushApplicationData();
            handshake.add(record, output);
            break;
        case TLSContentType::applicationData:
            handshake.flush();
            applicationData.add(record);
            break;
        }
        return true;
    });
    flushApplicationData();
    return output;
}

std::vector<Entry> TLSStreamParser::handshakeEntries(const std::vector<TLSRecord>& records, const StreamData& data, Direction direction,
                                                     const TCPStream& stream)
{
    std::vector<Entry> output;
    HandshakeRun run(data, direction, stream);
    for (const TLSRecord& record : records) run.add(record, output);
    return output;
}

std::optional<Entry> TLSStreamParser::applicationDataEntry(const std::vector<TLSRecord>& records, Direction direction,
                                                           const TCPStream& stream)
{
    ApplicationDataRun run;
    for (const TLSRecord& record : records) run.add(record);
    return run.flush(direction, stream);
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
    std::vector<Entry> sorted = entries(Direction::clientToServer, stream);
    std::ranges::move(entries(Direction::serverToClient, stream), std::back_inserter(sorted));
    std::ranges::stable_sort(sorted, precedes);
    auto pairings = handshakePairings(sorted);
    std::vector<StreamMessage> messages;
    messages.reserve(sorted.size());
    for (Entry& entry : sorted) messages.push_back(std::move(entry.message));

    // A session has secrets, interpreters and probes of its own.
    const auto decrypted =
        context.host ? context.host->decryptedInterpretation(stream, context) : TLSDecryptionProbe::decryptedInterpretation(stream);
    if (!decrypted) return {std::move(messages), std::move(pairings)};

    std::vector<StreamMessage> merged;
    std::ranges::remove_copy_if(messages, std::back_inserter(merged),
                                [](const StreamMessage& message) { return message.summary.starts_with(applicationDataPrefix); });
    std::ranges::copy(decrypted->messages, std::back_inserter(merged));
    std::ranges::stable_sort(merged, [](const StreamMessage& a, const StreamMessage& b) {
        return std::tie(a.timestamp, a.direction) < std::tie(b.timestamp, b.direction);
    });

    std::vector<Pairing> joined = remapPairings(pairings.value_or(std::vector<Pairing>{}), messages, merged);
    std::ranges::copy(remapPairings(decrypted->pairings.value_or(std::vector<Pairing>{}), decrypted->messages, merged),
                      std::back_inserter(joined));
    return {std::move(merged), joined.empty() ? std::nullopt : std::optional(std::move(joined))};
}

}  // namespace sealscope
