// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSRecord.h"

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "harness/VectorStream.h"
#include "tests/Sealscope/EntriesTwin.h"
#include "tests/Sealscope/TLSBytes.h"
#include "tests/Sealscope/TLSPrinters.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

/// The bytes as a stream whose packets carry `segmentSize` bytes each.
StreamData scattered(const Data& bytes, std::int64_t segmentSize)
{
    return vectorStream(bytes, {}, {.segmentSize = segmentSize, .isScattered = true}).clientToServerData;
}

TEST(TLSRecord, StartsWithAPlausibleHeader)
{
    struct Case {
        const char* name;
        Data payload;
        bool expected;
    };
    const Case cases[] = {
        {"nothing", {}, false},
        {"four bytes", hex("16 03 01 00"), false},
        {"change cipher spec", hex("14 03 03 00 01"), true},
        {"alert", hex("15 03 03 00 02"), true},
        {"handshake", hex("16 03 03 00 05"), true},
        {"application data", hex("17 03 03 00 05"), true},
        {"content type 19", hex("13 03 03 00 05"), false},
        {"content type 24", hex("18 03 03 00 05"), false},
        {"content type 84 has the same low bits as 20", hex("54 03 03 00 05"), false},
        {"major version 2", hex("16 02 03 00 05"), false},
        {"major version 4", hex("16 04 03 00 05"), false},
        {"SSL 3.0", hex("16 03 00 00 05"), false},
        {"TLS 1.0", hex("16 03 01 00 05"), true},
        {"TLS 1.3", hex("16 03 04 00 05"), true},
        {"minor version 5", hex("16 03 05 00 05"), false},
        {"no body", hex("17 03 03 00 00"), false},
        {"one byte", hex("17 03 03 00 01"), true},
        {"the longest body", hex("17 03 03 48 00"), true},
        {"a longer body", hex("17 03 03 48 01"), false},
        {"the longest length", hex("17 03 03 ff ff"), false},
        {"what follows the header does not matter", hex("17 03 03 00 05 ff"), true},
    };
    for (const auto& [name, payload, expected] : cases) {
        EXPECT_EQ(TLSDissector::looksLikeTLS(payload), expected) << name;
        EXPECT_EQ(TLSDissector::looksLikeTLS(scattered(payload, 2)), expected) << name << ", over packets";
    }
}

TEST(TLSRecord, CutsBytesIntoRecords)
{
    struct Case {
        const char* name;
        Data payload;
        std::vector<TLSRecord> expected;
    };
    const Case cases[] = {
        {"nothing", {}, {}},
        {"four bytes are no header", hex("16 03 03 00"), {}},
        {"an empty record is whole", hex("16 03 03 00 00"), {{22, 3, 3, 0, 0, 5, false}}},
        {"a cut record ends the scan", joined({hex("16 03 01 00 64"), wire::zeros(40)}), {{22, 3, 1, 100, 0, 5, true}}},
        {"records touch",
         joined({wire::record(22, wire::zeros(10)), wire::record(20, wire::zeros(3), 0x0301)}),
         {{22, 3, 3, 10, 0, 5, false}, {20, 3, 1, 3, 15, 20, false}}},
        {"stray bytes are left alone", hex("15 03 03 00 02  02 28  17 03 03"), {{21, 3, 3, 2, 0, 5, false}}},
        {"any five bytes are a header later on",
         hex("15 03 03 00 02  02 28  00 ff fe 00 01  07"),
         {{21, 3, 3, 2, 0, 5, false}, {0, 0xFF, 0xFE, 1, 7, 12, false}}},
        {"an empty record moves on by its header",
         hex("17 03 03 00 00  17 03 03 00 00  17 03 03 00 01"),
         {{23, 3, 3, 0, 0, 5, false}, {23, 3, 3, 0, 5, 10, false}, {23, 3, 3, 1, 10, 15, true}}},
        {"the longest length", joined({hex("17 03 03 ff ff"), wire::zeros(65535)}), {{23, 3, 3, 65535, 0, 5, false}}},
    };
    for (const auto& [name, payload, expected] : cases) {
        EXPECT_EQ(TLSDissector::parseRecords(payload), expected) << name;
        for (const std::int64_t segmentSize : {1, 3, 7, 1448})
            EXPECT_EQ(twin::records(scattered(payload, segmentSize)), expected) << name << ", packets of " << segmentSize;
    }
}

TEST(TLSRecord, EveryPrefixHasTheRecordsThatBeginInIt)
{
    const Data payload = joined({wire::record(22, patternBytes(11)), wire::record(20, hex("01")), wire::record(23, patternBytes(300))});
    const auto whole = TLSDissector::parseRecords(payload);
    ASSERT_EQ(whole.size(), 3);
    for (std::int64_t size = 0; size <= payload.size(); ++size) {
        std::vector<TLSRecord> expected;
        for (TLSRecord record : whole) {
            record.isTruncated = record.endOffset() > size;
            if (record.bodyOffset <= size) expected.push_back(record);
        }
        EXPECT_EQ(TLSDissector::parseRecords(payload.sub(0, size)), expected) << size << " bytes";
    }
}

TEST(TLSRecord, AWalkEndsWhereItsVisitorSaysSoAndMayBeginAnywhere)
{
    const Data payload = joined(std::vector<Data>(5, wire::record(23, patternBytes(10))));
    std::vector<std::int64_t> offsets;
    const auto visitTwo = [&](const TLSRecord& record) {
        offsets.push_back(record.recordOffset);
        return offsets.size() % 2 == 1;
    };
    forEachRecord(payload.view(), visitTwo);
    forEachRecord(payload.view(), visitTwo, 30);
    forEachRecord(scattered(payload, 4), visitTwo, 45);
    EXPECT_EQ(offsets, (std::vector<std::int64_t>{0, 15, 30, 45, 45, 60}));
}

TEST(TLSRecord, AHoleIsSteppedOverAtOnce)
{
    struct Case {
        const char* name;
        std::int64_t lost;
        std::vector<std::pair<TLSRecord, std::int64_t>> expected;  ///< with how many such records there are in a row
    };
    const auto emptyAt = [](std::int64_t offset) { return TLSRecord{0, 0, 0, 0, offset, offset + 5, false}; };
    const TLSRecord first{21, 3, 3, 2, 0, 5, false};
    const Case cases[] = {
        {"too short for a header", 4, {{first, 1}, {{0, 0, 0, 0, 7, 12, false}, 1}, {{1, 2, 3, 0x0405, 12, 17, true}, 1}}},
        {"one header", 5, {{first, 1}, {emptyAt(7), 1}, {{4, 1, 2, 0x0304, 12, 17, true}, 1}}},
        {"and a part of the next", 13, {{first, 1}, {emptyAt(7), 2}, {{0, 0, 0, 0x0401, 17, 22, true}, 1}}},
        {"longer than any memory",
         5'000'000'000'000'000,
         {{first, 1}, {emptyAt(7), 1'000'000'000'000'000}, {{4, 1, 2, 0x0304, 5'000'000'000'000'007, 5'000'000'000'000'012, true}, 1}}},
    };
    for (const auto& [name, lost, expected] : cases) {
        const bool isShort = lost == 4;
        const Data after = isShort ? hex("00 01 02 03 04 05 06") : hex("04 01 02 03 04 05");
        const TCPStream stream = vectorStream(
            std::vector<StreamPiece>{{.bytes = hex("15 03 03 00 02  02 28"), .lostBytes = lost}, {.bytes = after}}, StreamLayout::inPieces);
        std::vector<std::pair<TLSRecord, std::int64_t>> visited;
        forEachRecord(stream.clientToServerData, [&](const TLSRecord& record, std::int64_t count) {
            visited.emplace_back(record, count);
            return true;
        });
        EXPECT_EQ(visited, expected) << name;
    }
}

}  // namespace
}  // namespace sealscope
