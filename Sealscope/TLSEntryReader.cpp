// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSEntryReader.h"

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

// A direction is read record by record, once. Two kinds of records gather into runs: application data, which becomes one
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

/// No field of a hello lies farther behind its start, whatever length the message has: each list has at most 2^16 bytes.
constexpr std::int64_t longestHello = std::int64_t{1} << 18;

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

/// Level and description as they stand in the direction's data: those of a record shorter than two bytes are read from
/// what follows it, and those of an encrypted alert are the first two bytes of its ciphertext.
std::pair<std::string, std::vector<DetailRow>> alertText(const TLSRecord& record, StreamReader& bytes)
{
    if (bytes.size() < record.bodyOffset + 2) return {"Alert", {}};
    const char* const level = bytes.u8(record.bodyOffset) == 2 ? "Fatal" : "Warning";
    const std::string description = fmt::format_int(bytes.u8(record.bodyOffset + 1)).str();
    return {fmt::format("Alert ({}, {})", level, description), {{"Level", level}, {"Description", description}}};
}

}  // namespace

void TLSHandshakeRun::add(const TLSRecord& record, std::int64_t inBody)
{
    at_ = record.bodyOffset + inBody;
    end_ = record.endOffset();
    if (headerLength_ == 0 || at_ == end_) return;
    fragments_.push_back({.concatStart = concatEnd_, .streamStart = at_, .length = end_ - at_});
    concatEnd_ += end_ - at_;
}

bool TLSHandshakeRun::next()
{
    while (headerLength_ == std::ssize(header_) || takeHeader()) {
        if (!takeBody()) return false;
        headerLength_ = 0;
        // Nobody sent what lies wholly in a hole; it reads as an empty message.
        if (!isHeaderLost_) return true;
    }
    return false;
}

bool TLSHandshakeRun::takeHeader()
{
    constexpr std::int64_t headerLength = TLSHandshakeMessage::headerLength;
    if (headerLength_ == 0) {
        isHeaderLost_ = at_ < end_ && reader_.u8(at_) == 0 && data_.hole(at_);
        if (isHeaderLost_) at_ += detail::countInHole(reader_, at_, headerLength, end_) * headerLength;
        if (at_ == end_) return false;
        fragments_.clear();
        fragments_.push_back({.concatStart = 0, .streamStart = at_, .length = end_ - at_});
        concatEnd_ = end_ - at_;
    }
    while (headerLength_ < headerLength) {
        if (at_ == end_) return false;
        const std::uint8_t byte = header_[static_cast<std::size_t>(headerLength_++)] = reader_.u8(at_);
        isHeaderLost_ = isHeaderLost_ && byte == 0 && data_.hole(at_);
        ++at_;
    }
    length_ = missing_ = DataView(header_).u24(1);
    return true;
}

bool TLSHandshakeRun::takeBody()
{
    const std::int64_t taken = std::min(missing_, end_ - at_);
    at_ += taken;
    missing_ -= taken;
    return missing_ == 0;
}

TLSStreamParser::LocatedSpan TLSHandshakeRun::locate() const
{
    return TLSStreamParser::locateSpan({0, TLSHandshakeMessage::headerLength + length_}, fragments_, direction_, stream_);
}

DataView TLSHandshakeRun::body(std::int64_t most)
{
    constexpr std::int64_t headerLength = TLSHandshakeMessage::headerLength;
    const std::int64_t length = std::min(length_, most);
    if (const auto& first = fragments_.front(); first.length >= headerLength + length)
        return data_.gather(first.streamStart + headerLength, length, gathered_);
    gathered_.resize(static_cast<std::size_t>(length));
    for (const TLSStreamParser::HandshakeFragment& fragment : fragments_) {
        const std::int64_t begin = std::max(fragment.concatStart, headerLength);
        const std::int64_t end = std::min(fragment.concatStart + fragment.length, headerLength + length);
        if (begin >= end) continue;
        const auto target =
            std::span(gathered_).subspan(static_cast<std::size_t>(begin - headerLength), static_cast<std::size_t>(end - begin));
        data_.copy(fragment.streamStart + (begin - fragment.concatStart), target);
    }
    return gathered_;
}

Entry TLSHandshakeRun::entry(TLSStreamParser::LocatedSpan located)
{
    const auto known = handshakeTypeOf(type());
    const bool isHello = known == TLSHandshakeType::clientHello || known == TLSHandshakeType::serverHello;
    // Nothing is said about the others' bodies.
    const std::int64_t most = isHello ? longestHello : known == TLSHandshakeType::certificate ? length_ : 0;
    return makeEntry(direction_, StreamMessageKind::handshake,
                     TLSStreamParser::handshakeSummary(type(), body(most), TLSHandshakeMessage::headerLength), std::nullopt,
                     located.streamRange, {located.timestamp, std::move(located.packetIds)}, type());
}

void TLSApplicationDataRun::add(const TLSRecord& record)
{
    if (records_ == 0) range_.lower = record.bodyOffset;
    range_.upper = record.endOffset();
    bytes_ += record.declaredLength;
    ++records_;
}

Entry TLSApplicationDataRun::entry(Direction direction, ByteLocation location) const
{
    const std::string records = fmt::format_int(records_).str();
    const std::string bytes = fmt::format_int(bytes_).str();
    return makeEntry(direction, StreamMessageKind::data,
                     {fmt::format("{} ({} records, {} bytes, encrypted)", TLSStreamParser::applicationDataPrefix, records, bytes),
                      {{"Records", records}, {"Bytes", bytes}}},
                     StreamBodyHint::binary(), range_, std::move(location));
}

bool TLSEntryReader::next()
{
    if (kind_ == Kind::applicationData) applicationData_ = {};
    kind_ = Kind::none;
    forEachRecord(reader_, [&](const TLSRecord& record, std::int64_t count) { return take(record, count); }, place_.record);
    return kind_ != Kind::none || settleApplicationData();
}

/// Whether reading goes on: it stops at an item, and at the end. What breaks a run of application data waits until that is out.
bool TLSEntryReader::take(const TLSRecord& record, std::int64_t count)
{
    if (record.isTruncated) return false;
    const auto type = contentTypeOf(record.contentType);
    if (type && *type != TLSContentType::applicationData && settleApplicationData()) return false;
    if (type == TLSContentType::handshake) return takeHandshake(record);
    handshake_.drop();
    place_ = {.record = record.endOffset() + (count - 1) * TLSRecord::headerLength};
    if (type == TLSContentType::applicationData) {
        applicationData_.add(record);
    } else if (type) {
        record_ = record;
        settle(type == TLSContentType::alert ? Kind::alert : Kind::changeCipherSpec, bodyRange(record));
    }
    return kind_ == Kind::none;
}

bool TLSEntryReader::takeHandshake(const TLSRecord& record)
{
    handshake_.add(record, place_.inBody);
    const bool isFound = handshake_.next();
    if (isFound) {
        kind_ = Kind::handshake;
        located_ = handshake_.locate();
        timestamp_ = located_.timestamp.value_or(0);
    }
    if (isFound && handshake_.at() < record.endOffset())
        place_ = {.record = record.recordOffset, .inBody = handshake_.at() - record.bodyOffset};
    else
        place_ = {.record = record.endOffset()};
    return !isFound;
}

void TLSEntryReader::settle(Kind kind, ByteRange range)
{
    kind_ = kind;
    location_ = stream_.locate(range, direction_);
    timestamp_ = location_.timestamp.value_or(0);
}

bool TLSEntryReader::settleApplicationData()
{
    if (applicationData_.isEmpty()) return false;
    settle(Kind::applicationData, applicationData_.range());
    return true;
}

std::optional<std::uint8_t> TLSEntryReader::handshakeType() const
{
    return kind_ == Kind::handshake ? std::optional(handshake_.type()) : std::nullopt;
}

Entry TLSEntryReader::entry()
{
    switch (kind_) {
    case Kind::none: break;
    case Kind::handshake: return handshake_.entry(std::move(located_));
    case Kind::applicationData: return applicationData_.entry(direction_, std::move(location_));
    case Kind::alert:
        return makeEntry(direction_, StreamMessageKind::data, alertText(record_, reader_), std::nullopt, bodyRange(record_),
                         std::move(location_));
    case Kind::changeCipherSpec:
        return makeEntry(direction_, StreamMessageKind::handshake, {"Change Cipher Spec", {}}, std::nullopt, bodyRange(record_),
                         std::move(location_));
    }
    std::unreachable();
}

}  // namespace sealscope
