// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSRecord.h"
#include "host/VELModels/StreamData.h"
#include "platform/Data.h"

#include <algorithm>
#include <concepts>
#include <cstdint>

// Walks over the lists of TLS, one item at a time and without memory of their own: a visitor that has found what it looks
// for returns false and ends the walk. The lists that `TLSDissector` gives are made by these walks.

namespace sealscope {

/// A callable that takes an item and says whether to go on.
template <class Visit, class... Item>
concept TLSVisitor = std::predicate<Visit&, Item...>;

namespace detail {

template <class Bytes, class Visit> void walkRecords(Bytes&& bytes, std::int64_t offset, Visit& visit)
{
    const std::int64_t size = bytes.size();
    while (size - offset >= TLSRecord::headerLength) {
        TLSRecord record{.contentType = bytes.u8(offset),
                         .majorVersion = bytes.u8(offset + 1),
                         .minorVersion = bytes.u8(offset + 2),
                         .declaredLength = bytes.u16(offset + 3),
                         .recordOffset = offset,
                         .bodyOffset = offset + TLSRecord::headerLength};
        record.isTruncated = size - record.bodyOffset < record.declaredLength;
        // Where the header after a truncated record would stand is not in these bytes.
        if (!visit(record) || record.isTruncated) return;
        offset = record.endOffset();
    }
}

}  // namespace detail

/// The record headers from `offset` on, as `TLSDissector::parseRecords` lists them. Reads nothing but headers.
template <TLSVisitor<TLSRecord> Visit> void forEachRecord(DataView bytes, Visit visit, std::int64_t offset = 0)
{
    detail::walkRecords(bytes, offset, visit);
}

template <TLSVisitor<TLSRecord> Visit> void forEachRecord(const StreamData& bytes, Visit visit, std::int64_t offset = 0)
{
    detail::walkRecords(StreamReader(bytes), offset, visit);
}

/// The same with a reader that keeps its place, for a walk that is taken up again.
template <TLSVisitor<TLSRecord> Visit> void forEachRecord(StreamReader& bytes, Visit visit, std::int64_t offset)
{
    detail::walkRecords(bytes, offset, visit);
}

/// The handshake messages of one record body, as `TLSDissector::parseHandshakeMessages` lists them.
template <TLSVisitor<TLSHandshakeMessage> Visit> void forEachHandshakeMessage(DataView body, std::int64_t baseOffset, Visit visit)
{
    std::int64_t offset = 0;
    while (body.size() - offset >= TLSHandshakeMessage::headerLength) {
        const std::int64_t bodyOffset = offset + TLSHandshakeMessage::headerLength;
        const std::int64_t length = body.u24(offset + 1);
        const TLSHandshakeMessage message{.handshakeType = body.u8(offset),
                                          .length = length,
                                          .bodyOffset = baseOffset + bodyOffset,
                                          .isTruncated = body.size() - bodyOffset < length};
        if (!visit(message) || message.isTruncated) return;
        offset = bodyOffset + length;
    }
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
