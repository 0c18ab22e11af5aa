// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSRecord.h"
#include "host/VELModels/StreamData.h"
#include "platform/Data.h"

#include <algorithm>
#include <concepts>
#include <cstdint>

// Visits the lists of TLS, one item at a time and without memory of their own: a visitor that has found what it looks
// for returns false and ends the visit. The lists that `TLSDissector` gives are made by these visits.
//
// Lost bytes of a stream stand as zeros, and a hole may be longer than any memory. Five zeros are a record header of type 0
// without a body, four are a handshake message of type 0 without one. Where the rest of a hole holds n such records they
// come as one, with their number; such messages nobody sent, and they are passed over:
//
//     .. 16 03 03 00 04 | 0 0 0 0 0  0 0 0 0 0  0 0 | 17 03 03 ..      a record, 4 bytes of its body and 8 more lost
//                         `-----'                                      1 message, passed over
//                                 0  0 0 0 0                           1 record of type 0, wholly in the hole
//                                             0 0 0     17 03 03       a header that begins in it: read like any other

namespace sealscope {

/// A callable that takes an item and says whether to go on.
template <class Visit, class... Item>
concept TLSVisitor = std::predicate<Visit&, Item...>;

/// A visitor of a stream's records: it may ask how many of one kind a hole holds in a row.
template <class Visit>
concept TLSRecordVisitor = TLSVisitor<Visit, TLSRecord> || TLSVisitor<Visit, TLSRecord, std::int64_t>;

/// The record whose header stands at an offset, all of it, in so many bytes (RFC 8446 §5.1).
template <class Bytes> [[gnu::always_inline]] inline TLSRecord recordAt(Bytes& bytes, std::int64_t offset, std::int64_t size)
{
    TLSRecord record{.contentType = bytes.u8(offset),
                     .majorVersion = bytes.u8(offset + 1),
                     .minorVersion = bytes.u8(offset + 2),
                     .declaredLength = bytes.u16(offset + 3),
                     .recordOffset = offset,
                     .bodyOffset = offset + TLSRecord::headerLength};
    record.isTruncated = size - record.bodyOffset < record.declaredLength;
    return record;
}

namespace detail {

/// How many pieces of `length` bytes lie wholly in the hole around an offset, from there on and up to `end`.
inline std::int64_t countInHole(const StreamReader& bytes, std::int64_t offset, std::int64_t length, std::int64_t end)
{
    const auto hole = bytes.data().hole(offset);
    return hole ? (std::min(hole->upper, end) - offset) / length : 0;
}
inline std::int64_t countInHole(DataView, std::int64_t, std::int64_t, std::int64_t) { return 0; }

template <class Bytes, class Visit> void visitRecords(Bytes&& bytes, std::int64_t offset, Visit& visit)
{
    const std::int64_t size = bytes.size();
    while (size - offset >= TLSRecord::headerLength) {
        const TLSRecord record = recordAt(bytes, offset, size);
        std::int64_t count = 1;
        if (record.contentType == 0 && record.version() == 0 && record.declaredLength == 0)
            count = std::max<std::int64_t>(countInHole(bytes, offset, TLSRecord::headerLength, size), 1);
        bool goesOn = false;
        if constexpr (TLSVisitor<Visit, TLSRecord, std::int64_t>)
            goesOn = visit(record, count);
        else
            goesOn = visit(record);
        // Where the header after a truncated record would stand is not in these bytes.
        if (!goesOn || record.isTruncated) return;
        offset = record.endOffset() + (count - 1) * TLSRecord::headerLength;
    }
}

/// `offset` and `end` bound a record's body in the bytes. `base` is what offsets count from, there.
template <class Bytes, class Visit>
void visitHandshakeMessages(Bytes&& bytes, std::int64_t offset, std::int64_t end, std::int64_t base, Visit& visit)
{
    constexpr std::int64_t headerLength = TLSHandshakeMessage::headerLength;
    while (end - offset >= headerLength) {
        const std::int64_t bodyOffset = offset + headerLength;
        const std::int64_t length = bytes.u24(offset + 1);
        const std::uint8_t type = bytes.u8(offset);
        if (type == 0 && length == 0) {
            if (const std::int64_t lost = countInHole(bytes, offset, headerLength, end); lost > 0) {
                offset += lost * headerLength;
                continue;
            }
        }
        const TLSHandshakeMessage message{
            .handshakeType = type, .length = length, .bodyOffset = base + bodyOffset, .isTruncated = end - bodyOffset < length};
        if (!visit(message) || message.isTruncated) return;
        offset = bodyOffset + length;
    }
}

}  // namespace detail

/// The record headers from `offset` on, as `TLSDissector::parseRecords` lists them. Reads nothing but headers.
template <TLSVisitor<TLSRecord> Visit> void forEachRecord(DataView bytes, Visit visit, std::int64_t offset = 0)
{
    detail::visitRecords(bytes, offset, visit);
}

/// The same for a stream, whose holes are stepped over: the records of type 0 that lie wholly in one come as their first, and
/// their number, for a visitor that asks.
template <TLSRecordVisitor Visit> void forEachRecord(const StreamData& bytes, Visit visit, std::int64_t offset = 0)
{
    detail::visitRecords(StreamReader(bytes), offset, visit);
}

/// The same with a reader that keeps its place, for a visit that is taken up again.
template <TLSRecordVisitor Visit> void forEachRecord(StreamReader& bytes, Visit visit, std::int64_t offset)
{
    detail::visitRecords(bytes, offset, visit);
}

/// The handshake messages of one record body, as `TLSDissector::parseHandshakeMessages` lists them.
template <TLSVisitor<TLSHandshakeMessage> Visit> void forEachHandshakeMessage(DataView body, std::int64_t baseOffset, Visit visit)
{
    detail::visitHandshakeMessages(body, 0, body.size(), baseOffset, visit);
}

/// Those of a stream's record, as far as the stream holds it, without the ones whose headers lie wholly in a hole. Offsets are
/// the stream's.
template <TLSVisitor<TLSHandshakeMessage> Visit> void forEachHandshakeMessage(StreamReader& bytes, const TLSRecord& record, Visit visit)
{
    detail::visitHandshakeMessages(bytes, record.bodyOffset, std::min(record.endOffset(), bytes.size()), 0, visit);
}

/// The extensions of a list that begins with its 2-byte length, as `TLSDissector::parseExtensions` lists them.
template <TLSVisitor<TLSExtension> Visit> void forEachExtension(DataView bytes, std::int64_t baseOffset, Visit visit)
{
    const std::int64_t listEnd = std::min<std::int64_t>(bytes.size(), bytes.u16(0) + 2);
    std::int64_t offset = 2;
    while (listEnd - offset >= 4) {
        const std::int64_t length = bytes.u16(offset + 2);
        const std::int64_t next = offset + 4 + length;
        if (next > listEnd) return;
        if (!visit(TLSExtension{.extType = bytes.u16(offset), .bodyOffset = baseOffset + offset + 4, .length = length})) return;
        offset = next;
    }
}

/// The certificates of a Certificate message body, as `TLSDissector::parseCertificates` lists them: DER bytes and their
/// offset in the caller's coordinates.
template <TLSVisitor<DataView, std::int64_t> Visit> void forEachCertificate(DataView body, std::int64_t baseOffset, Visit visit)
{
    const std::int64_t listEnd = std::min(body.size(), body.u24(0) + 3);
    std::int64_t offset = 3;
    while (listEnd - offset >= 3) {
        const std::int64_t length = body.u24(offset);
        const std::int64_t next = offset + 3 + length;
        if (next > listEnd) return;
        if (!visit(body.sub(offset + 3, length), baseOffset + offset + 3)) return;
        offset = next;
    }
}

}  // namespace sealscope
