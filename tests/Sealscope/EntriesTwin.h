// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSStreamParser.h"

#include <algorithm>
#include <vector>

namespace sealscope::twin {

/// Every record of a stream, with those in its holes one by one.
inline std::vector<TLSRecord> records(const StreamData& data)
{
    std::vector<TLSRecord> records;
    forEachRecord(data, [&](TLSRecord record, std::int64_t count) {
        for (; count > 0; --count) {
            records.push_back(record);
            record.recordOffset += TLSRecord::headerLength;
            record.bodyOffset += TLSRecord::headerLength;
        }
        return true;
    });
    return records;
}

/// The items of one direction as the operations on lists give them: `plain` is the stream with its bytes in one place, `holes`
/// the same bytes with holes. What the walk does by and by comes to the same.
inline std::vector<TLSStreamParser::Entry> entries(TCPSegment::Direction direction, const TCPStream& plain, const StreamData& holes)
{
    std::vector<TLSStreamParser::Entry> output;
    std::vector<TLSRecord> handshake, applicationData;
    const StreamData& data = plain.data(direction);
    const Data bytes = data.whole();

    /// Whether the four bytes of an empty message of type 0 all lie in holes.
    const auto isNobodys = [&](const TLSStreamParser::Entry& entry) {
        std::int64_t lost = 0, size = 0;
        const ByteRange range = *entry.message.byteRange;
        for (const TLSRecord& record : handshake)
            for (std::int64_t at = std::max(record.bodyOffset, range.lower); at < std::min(record.endOffset(), range.upper); ++at)
                ++size, lost += holes.hole(at).has_value();
        return entry.handshakeType == 0 && size == 4 && lost == 4;
    };
    const auto flushHandshake = [&] {
        for (auto& entry : TLSStreamParser::handshakeEntries(handshake, data, direction, plain))
            if (!isNobodys(entry)) output.push_back(std::move(entry));
        handshake.clear();
    };
    const auto flushApplicationData = [&] {
        if (auto entry = TLSStreamParser::applicationDataEntry(applicationData, direction, plain)) output.push_back(*std::move(entry));
        applicationData.clear();
    };
    const auto alone = [&](const TLSRecord& record) {
        flushHandshake();
        flushApplicationData();
        // A stream that holds the record alone has its item; what is behind it an alert may read as well.
        TCPStream rest = plain;
        const Data from = bytes.sub(record.recordOffset, bytes.size());
        (direction == TCPSegment::Direction::clientToServer ? rest.clientToServerData : rest.serverToClientData) = from;
        TLSStreamParser::Entry entry = TLSStreamParser::entries(direction, rest).at(0);
        const ByteRange body{record.bodyOffset, record.endOffset()};
        const ByteLocation location = plain.locate(body, direction);
        entry.message.byteRange = body;
        entry.message.packetIds = location.packetIds;
        entry.timestamp = entry.message.timestamp = location.timestamp.value_or(0);
        entry.firstByteOffset = body.lower;
        output.push_back(std::move(entry));
    };
    for (const TLSRecord& record : TLSDissector::parseRecords(bytes)) {
        if (record.isTruncated) break;
        switch (record.contentType) {
        case 20:
        case 21: alone(record); break;
        case 22:
            flushApplicationData();
            handshake.push_back(record);
            break;
        case 23:
            flushHandshake();
            applicationData.push_back(record);
            break;
        default: flushHandshake();
        }
    }
    flushHandshake();
    flushApplicationData();
    return output;
}

inline bool isSame(const StreamMessage& a, const StreamMessage& b)
{
    return a.direction == b.direction && a.kind == b.kind && a.summary == b.summary && a.detail == b.detail && a.byteRange == b.byteRange &&
           a.packetIds == b.packetIds && a.timestamp == b.timestamp && a.isDecrypted == b.isDecrypted;
}

inline bool isSameEntry(const TLSStreamParser::Entry& a, const TLSStreamParser::Entry& b)
{
    return isSame(a.message, b.message) && a.timestamp == b.timestamp && a.directionOrder == b.directionOrder &&
           a.firstByteOffset == b.firstByteOffset && a.handshakeType == b.handshakeType;
}

}  // namespace sealscope::twin
