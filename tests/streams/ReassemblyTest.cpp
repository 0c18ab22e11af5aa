// SPDX-License-Identifier: Apache-2.0
#include "tests/streams/PlainReassembly.h"
#include "tests/streams/ScriptedCapture.h"
#include "tests/support/Printers.h"

#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace sealscope;

namespace {

constexpr auto toServer = TCPSegment::Direction::clientToServer;

constexpr std::uint8_t SYN = TCPFlag::syn, ACK = TCPFlag::ack, FIN = TCPFlag::fin, RST = TCPFlag::rst, PSH = TCPFlag::psh,
                       URG = TCPFlag::urg;

/// One packet of a case. The client's numbers count from `origin`, the number of its first byte.
struct Packet {
    std::int64_t offset = 0;
    std::string_view payload;
    std::uint8_t flags = ACK | PSH;
    std::int64_t cutTo = -1;
};

/// What the server acknowledges of it.
constexpr std::uint8_t fromServer = 0x80;
constexpr Packet acknowledged(std::int64_t offset) { return {offset, {}, fromServer}; }

ScriptedCapture captured(const std::vector<Packet>& packets, std::uint32_t origin)
{
    ScriptedCapture capture;
    double time = 100;
    for (const Packet& packet : packets) {
        const auto number = origin + static_cast<std::uint32_t>(packet.offset);
        TCPPacket segment{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, 443), .sequenceNumber = number};
        segment.flags = packet.flags;
        if (packet.flags == fromServer) {
            std::swap(segment.source, segment.destination);
            segment = {.source = segment.source, .destination = segment.destination, .sequenceNumber = 77, .flags = ACK};
            segment.acknowledgmentNumber = number;
        }
        capture.add(segment, DataView(packet.payload), time++, packet.cutTo);
    }
    return capture;
}

/// A character for each byte, where "_" stands for a lost one and "_{12}" for twelve: long losses stay readable.
class ByteLine {
public:
    void lost(std::int64_t count) { lost_ += count; }
    void add(char character)
    {
        flush();
        line_ += character;
    }
    std::string text()
    {
        flush();
        return line_;
    }

private:
    void flush()
    {
        line_ += lost_ < 4 ? std::string(static_cast<std::size_t>(lost_), '_') : "_{" + std::to_string(lost_) + "}";
        lost_ = 0;
    }
    std::string line_;
    std::int64_t lost_ = 0;
};

/// The client's data; no payload of a case holds a zero byte that counts.
std::string text(const TCPStream& stream)
{
    ByteLine line;
    const StreamData& data = stream.clientToServerData;
    for (std::int64_t offset = 0; offset < data.size();) {
        const DataView here = data.stretch(offset);
        if (here[0] == 0 && here.sub(1, here.size()) == here.sub(0, here.size() - 1)) {
            line.lost(here.size());
        } else {
            for (const std::uint8_t byte : here) line.add(static_cast<char>(byte));
        }
        offset += here.size();
    }
    return line.text();
}

/// The packet of each byte in the same form, as `locate` gives it for the byte alone.
std::string owners(const TCPStream& stream)
{
    ByteLine line;
    const StreamData& data = stream.clientToServerData;
    for (std::int64_t offset = 0; offset < data.size();) {
        const std::int64_t end = offset + data.stretch(offset).size();
        if (stream.locate({offset, end}, toServer) == ByteLocation{}) {
            line.lost(end - offset);
            offset = end;
        }
        for (; offset < end; ++offset) {
            const ByteLocation location = stream.locate({offset, offset + 1}, toServer);
            if (location.packetIds.size() != 1) return "byte " + std::to_string(offset) + " is of several packets or none";
            line.add(static_cast<char>('0' + location.packetIds.front()));
            EXPECT_EQ(location.timestamp, 99.0 + static_cast<double>(location.packetIds.front()));
        }
    }
    return line.text();
}

constexpr std::int64_t MiB = 1 << 20, GiB = std::int64_t{1} << 30;

}  // namespace

TEST(Reassembly, PutsEveryByteInItsPlace)
{
    struct Case {
        const char* name;
        std::vector<Packet> packets;
        std::string data;
        std::string owners;  ///< packet numbers, from 1
        std::int64_t missing = 0;
        std::int64_t contradicting = 0;
        std::int64_t restarts = 0;
    };
    const Case cases[] = {
        {"in order", {{-1, "", SYN}, {0, "abc"}, {3, "def"}}, "abcdef", "222333"},
        {"no data", {{-1, "", SYN}, {0, "", ACK}, {0, "", ACK | FIN}}, "", ""},
        {"swapped", {{-1, "", SYN}, {3, "def"}, {0, "abc"}}, "abcdef", "333222"},
        {"back to front, the SYN last", {{6, "ghi"}, {3, "def"}, {0, "abc"}, {-1, "", SYN}}, "abcdefghi", "333222111"},
        {"back to front without a SYN", {{6, "ghi"}, {3, "def"}, {0, "abc"}}, "abcdefghi", "333222111"},

        {"retransmitted", {{-1, "", SYN}, {0, "abc"}, {3, "def"}, {0, "abc"}, {6, "g"}}, "abcdefg", "2223335"},
        {"each packet twice", {{-1, "", SYN}, {-1, "", SYN}, {0, "ab"}, {0, "ab"}, {2, "cd"}, {2, "cd"}}, "abcd", "3355"},
        {"retransmitted with more behind", {{-1, "", SYN}, {0, "abc"}, {0, "abcdef"}, {6, "g"}}, "abcdefg", "2223334"},
        {"retransmitted with other cuts", {{-1, "", SYN}, {0, "ab"}, {2, "cd"}, {4, "ef"}, {1, "bcde"}}, "abcdef", "223344"},
        {"the first copy stays", {{-1, "", SYN}, {0, "abc"}, {0, "aXY"}, {3, "d"}}, "abcd", "2224", 0, 2},
        {"the first copy stays, also in the middle", {{-1, "", SYN}, {2, "cd"}, {0, "ABCDEF"}}, "ABcdEF", "332233", 0, 2},
        {"one packet fills several holes", {{-1, "", SYN}, {1, "b"}, {3, "d"}, {5, "f"}, {0, "abcdefg"}}, "abcdefg", "5253545"},
        {"what goes on after a hole was filled",
         {{-1, "", SYN}, {0, "ab"}, {4, "ef"}, {2, "cd"}, {4, "EF"}, {6, "gh"}},
         "abcdefgh",
         "22443366",
         0,
         2},
        {"a later packet reaches over all before", {{-1, "", SYN}, {4, "e"}, {2, "cdef"}, {0, "abcdefgh"}}, "abcdefgh", "44332344"},
        {"overlaps to the left and to the right", {{-1, "", SYN}, {2, "cde"}, {0, "abc"}, {4, "efg"}}, "abcdefg", "3322244"},

        {"lost", {{-1, "", SYN}, {0, "ab"}, {5, "f"}}, "ab___f", "22___3", 3},
        {"lost at the beginning", {{-1, "", SYN}, {2, "c"}}, "__c", "__2", 2},
        {"a FIN alone shows no loss", {{-1, "", SYN}, {0, "ab"}, {9, "", ACK | FIN}}, "ab", "22"},
        {"an acknowledgment alone shows no loss", {{-1, "", SYN}, {0, "ab"}, acknowledged(9)}, "ab", "22"},
        {"several losses", {{-1, "", SYN}, {1, "b"}, {3, "d"}, {4, "e"}, {10, "k"}}, "_b_de_{5}k", "_2_34_{5}5", 7},
        {"found after all", {{-1, "", SYN}, {0, "ab"}, {4, "e"}, {2, "cd"}}, "abcde", "22443"},

        {"data with the SYN", {{-1, "abc", SYN}, {3, "def"}}, "abcdef", "111222"},
        {"data with the SYN again after it", {{-1, "abc", SYN}, {0, "abc"}, {3, "def"}}, "abcdef", "111333"},
        {"data with the FIN", {{-1, "", SYN}, {0, "abc", ACK | FIN}}, "abc", "222"},
        {"urgent data stays in line", {{-1, "", SYN}, {0, "ab"}, {2, "!", ACK | URG}, {3, "c"}}, "ab!c", "2234"},
        {"what comes with a reset is no data", {{-1, "", SYN}, {0, "ab"}, {2, "why", ACK | RST}}, "ab", "22"},
        {"a reset with a number of its own", {{-1, "", SYN}, {0, "ab"}, {0, "", RST}, {2, "c"}}, "abc", "224"},
        {"before the SYN", {{-1, "", SYN}, {-5, "old"}, {0, "ab"}, {-3, "oldab"}}, "ab", "33"},
        {"a SYN captured late shows what was lost before the data", {{2, "cd"}, {-1, "", SYN}}, "__cd", "__11", 2},
        {"a SYN captured late cuts what lies before it", {{0, "ab"}, {-1, "", SYN}, {2, "c"}}, "abc", "113"},

        {"in mid-stream", {{0, "ab", ACK}, {2, "cd"}}, "abcd", "1122"},
        {"in mid-stream, a little disorder at the beginning", {{4, "ef"}, {6, "gh"}, {0, "abc"}}, "abc_efgh", "333_1122", 1},
        {"in mid-stream, something old after much data",
         {{1'000, "a"}, {1'001 + MiB, "b"}, {0, "old"}, {990, "old"}},
         "a_{1048576}b",
         "1_{1048576}2",
         MiB},
        {"in mid-stream, right before the beginning after much data",
         {{1'000, "c"}, {1'001 + MiB, "d"}, {998, "ab"}},
         "abc_{1048576}d",
         "331_{1048576}2",
         MiB},

        {"keep-alive", {{-1, "", SYN}, {0, "ab"}, acknowledged(2), {1, "?", ACK}, {2, "c"}}, "abc", "225"},
        {"keep-alive without a byte", {{-1, "", SYN}, {0, "ab"}, {1, "", ACK}, {2, "c"}}, "abc", "224"},
        {"keep-alive before any data", {{-1, "", SYN}, acknowledged(0), {-1, "?", ACK}, {0, "ab"}}, "ab", "44"},
        {"keep-alive first of all", {{-1, {"\0", 1}, ACK}, {0, "ab"}}, "ab", "22"},
        {"keep-alive after the FIN", {{-1, "", SYN}, {0, "ab", ACK | FIN}, acknowledged(3), {2, "?", ACK}}, "ab", "22"},
        {"keep-alive for data that was lost", {{-1, "", SYN}, {0, "a"}, acknowledged(3), {2, "?", ACK}, {3, "d"}}, "a_?d", "2_45", 1},
        {"keep-alive for data that was lost, at the end", {{-1, "", SYN}, {0, "a"}, {3, "", ACK}, {2, "?", ACK}}, "a_?", "2_4", 1},
        {"lone bytes behind their acknowledgments",
         {{-1, "", SYN}, acknowledged(3), {1, "b", ACK}, {2, "c", ACK}, {0, "a", ACK}, {4, "", ACK}, {3, "d", ACK}},
         "abcd",
         "5347"},
        {"the first lone byte behind its acknowledgment", {{-1, "", SYN}, acknowledged(1), {0, "a", ACK}}, "a", "3"},
        {"keep-alive before the byte comes", {{-1, "", SYN}, {0, "a"}, acknowledged(2), {1, "?", ACK}, {1, "bc"}}, "a?c", "245", 0, 1},
        {"keep-alive of a silent connection, first of all", {{0, "", ACK}, {-1, "?", ACK}, acknowledged(0), {0, "ab"}}, "ab", "44"},
        {"a lone byte is data", {{-1, "", SYN}, {0, "a", ACK}, {1, "b", ACK}, acknowledged(2), {2, "c", ACK}}, "abc", "235"},
        {"zero-window probe",
         {{-1, "", SYN}, {0, "ab"}, acknowledged(2), {2, "c", ACK}, {2, "c", ACK}, acknowledged(2), {2, "cde"}},
         "abcde",
         "22477"},

        {"cut by the snapshot length", {{-1, "", SYN}, {0, "abcd", ACK, 2}, {4, "efgh", ACK, 2}}, "ab__ef", "22__33", 2},
        {"cut to nothing", {{-1, "", SYN}, {0, "abcd", ACK, 0}, {4, "e"}}, "_{4}e", "_{4}3", 4},
        {"cut, and whole later", {{-1, "", SYN}, {0, "abcd", ACK, 1}, {4, "ef"}, {0, "abcd"}}, "abcdef", "244433"},
        {"cut inside what is known", {{-1, "", SYN}, {0, "abcd"}, {2, "cdef", ACK, 1}, {6, "g"}}, "abcd__g", "2222__4", 2},

        {"a gap as large as a loss may be", {{-1, "", SYN}, {0, "a"}, {GiB + 1, "b"}}, "a_{1073741824}b", "2_{1073741824}3", GiB},
        {"a gap too large for a loss", {{-1, "", SYN}, {0, "a"}, {GiB + 2, "b"}, {GiB + 3, "c"}}, "abc", "234", 0, 0, 1},
        {"a jump by three gigabytes", {{-1, "", SYN}, {0, "a"}, {3 * GiB, "b"}, {3 * GiB + 2, "d"}}, "ab_d", "23_4", 1, 0, 1},
        {"a gap within what was acknowledged",
         {{-1, "", SYN}, {0, "a"}, acknowledged(9 * MiB), {8 * MiB, "b"}},
         "a_{8388607}b",
         "2_{8388607}4",
         8 * MiB - 1},
        {"a gap beyond what was acknowledged", {{-1, "", SYN}, {0, "a"}, acknowledged(1), {8 * MiB, "b"}}, "ab", "24", 0, 0, 1},
        {"a small gap beyond what was acknowledged",
         {{-1, "", SYN}, {0, "a"}, acknowledged(1), {1'001, "b"}},
         "a_{1000}b",
         "2_{1000}4",
         1'000},
        {"acknowledged after the gap",
         {{-1, "", SYN}, {0, "a"}, acknowledged(1), {8 * MiB, "b"}, acknowledged(8 * MiB + 1)},
         "a_{8388607}b",
         "2_{8388607}4",
         8 * MiB - 1},
        {"back after a jump", {{-1, "", SYN}, {0, "a"}, {2 * GiB, "?"}, {1, "b"}, {2, "c"}}, "abc?", "2453", 0, 0, 1},
        {"what was acknowledged to a SYN that came to nothing",
         {{GiB, "", SYN}, acknowledged(GiB + 1), {-1, "", SYN}, {0, "a"}, acknowledged(1), {8 * MiB, "b"}},
         "ab",
         "46",
         0,
         0,
         1},
        {"a second SYN on a connection that did not come about", {{900, "", SYN}, {-1, "", SYN}, {0, "ab"}}, "ab", "33"},
    };
    // The first bytes of a direction lie anywhere on the circle; the last of these origins wraps in the middle of a word.
    for (const std::uint32_t origin : {1'000U, 0U, 0x7FFF'FFFEU, 0xFFFF'FFFDU}) {
        for (const Case& test : cases) {
            SCOPED_TRACE(testing::Message() << test.name << ", from " << origin);
            const ScriptedCapture capture = captured(test.packets, origin);
            ASSERT_EQ(capture.index().size(), 1);
            const TCPStream stream = capture.stream();
            const StreamMeasures measures = capture.measures();
            EXPECT_EQ(measures.clientBytes, stream.clientToServerData.size());
            EXPECT_EQ(measures.missingBytes, test.missing);
            EXPECT_EQ(measures.contradictingBytes, test.contradicting);
            EXPECT_EQ(measures.restarts, test.restarts);
            EXPECT_EQ(text(stream), test.data);
            EXPECT_EQ(owners(stream), test.owners);
        }
    }
}

TEST(Reassembly, AgreesWithAPlainByteMapOnRandomSegments)
{
    std::mt19937_64 random(20'240'517);
    const auto below = [&](std::int64_t bound) { return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(bound)); };
    for (int round = 0; round < 600; ++round) {
        const bool hasSYN = below(4) != 0;
        const std::int64_t reach = 1 + below(300);
        const bool isOrderly = below(2) == 0;
        std::vector<SegmentStep> steps;
        std::int64_t next = 0;
        for (std::int64_t count = below(120); count > 0; --count) {
            SegmentStep step;
            const bool inOrder = isOrderly ? below(8) != 0 : below(3) == 0;
            step.offset = static_cast<std::int32_t>(inOrder ? next : below(reach) - 10);
            // One content for each place, now and then another one.
            const std::int64_t length = below(24);
            for (std::int64_t i = 0; i < length; ++i) step.payload.push_back(static_cast<std::uint8_t>(step.offset + i + 7));
            if (!step.payload.empty() && below(20) == 0) step.payload[0] ^= 1;
            step.captured = below(10) == 0 ? below(length + 1) : length;
            step.isReset = below(40) == 0;
            if (inOrder) next += length;
            steps.push_back(std::move(step));
        }
        const auto origin = below(3) == 0 ? static_cast<std::uint32_t>(-below(200)) : static_cast<std::uint32_t>(random());
        ASSERT_EQ(differenceFromPlain(steps, hasSYN, origin), std::nullopt) << "round " << round;
    }
}

TEST(Reassembly, SurvivesAdversarialDisorder)
{
    constexpr std::int64_t count = 100'000;
    constexpr std::int64_t length = 10;
    struct Case {
        const char* name;
        std::int64_t (*offset)(std::int64_t step);  ///< of a step's segment
        std::int64_t size;
        std::int64_t missing;
    };
    // A work that is quadratic in the number of segments would not end before the test's time limit.
    const Case cases[] = {
        {"back to front", [](std::int64_t step) { return (count - 1 - step) * length; }, count * length, 0},
        {"holes, filled back to front",
         [](std::int64_t step) { return step < count / 2 ? 2 * step * length : (2 * (count - step) - 1) * length; }, count * length, 0},
        {"each over half of the one before, from the right", [](std::int64_t step) { return (count - 1 - step) * 5; }, count * 5 + 5, 0},
        {"every second lost", [](std::int64_t step) { return 2 * step * length; }, (2 * count - 1) * length, (count - 1) * length},
        {"from both ends", [](std::int64_t step) { return (step % 2 ? count - 1 - step / 2 : step / 2) * length; }, count * length, 0},
        {"always the same", [](std::int64_t) { return std::int64_t{0}; }, length, 0},
    };
    std::vector<std::uint8_t> payload(length, 'x');
    for (const auto& [name, offset, size, missing] : cases) {
        SCOPED_TRACE(name);
        ScriptedCapture capture;
        TCPPacket packet{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, 443), .sequenceNumber = 0, .flags = SYN};
        capture.add(packet, {}, 0);
        packet.flags = ACK | PSH;
        for (std::int64_t step = 0; step < count; ++step) {
            packet.sequenceNumber = static_cast<std::uint32_t>(1 + offset(step));
            capture.add(packet, payload, 0);
        }
        const StreamMeasures measures = capture.measures();
        EXPECT_EQ(measures.clientBytes, size);
        EXPECT_EQ(measures.missingBytes, missing);
        EXPECT_EQ(measures.contradictingBytes, 0);
        EXPECT_EQ(measures.restarts, 0);
        const TCPStream stream = capture.stream();
        std::int64_t carried = 0;
        for (std::int64_t at = 0; at < size; at += stream.clientToServerData.stretch(at).size())
            carried += std::ranges::count(stream.clientToServerData.stretch(at), 'x');
        EXPECT_EQ(carried, size - missing);
    }
}

TEST(Reassembly, KeepsToItsErasHoweverFarAStreamGoes)
{
    // Nine terabytes, of which the packets hold a byte in sixteen million.
    const std::vector<std::uint8_t> payload(SegmentRecord::maximumLength, 'x');
    constexpr std::int64_t count = 540'000;
    ScriptedCapture capture;
    TCPPacket packet{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, 443), .sequenceNumber = 0, .flags = SYN};
    capture.add(packet, {}, 0);
    packet.flags = ACK | PSH;
    packet.sequenceNumber = 1;
    for (std::int64_t step = 0; step < count; ++step) {
        capture.add(packet, payload, 0, 1);
        packet.sequenceNumber += static_cast<std::uint32_t>(payload.size());
    }
    const StreamMeasures measures = capture.measures();
    EXPECT_EQ(measures.clientBytes - measures.missingBytes, count);
    EXPECT_GT(measures.clientBytes, 9'000'000'000'000);
    EXPECT_GE(measures.restarts, 1);
}

TEST(Reassembly, TellsHoles)
{
    const TCPStream stream = captured({{-1, {}, SYN}, {3, "abc"}, {6, "def"}, {1'000'009, "g"}}, 100).stream();
    const StreamData& data = stream.clientToServerData;
    struct Case {
        std::int64_t offset;
        std::optional<ByteRange> expected;
    };
    const Case cases[] = {
        {-1, {}},        {0, {{0, 3}}},   {2, {{0, 3}}}, {3, {}}, {8, {}}, {9, {{9, 1'000'009}}}, {500'000, {{9, 1'000'009}}},
        {1'000'009, {}}, {1'000'010, {}},
    };
    for (const auto& [offset, expected] : cases) EXPECT_EQ(data.hole(offset), expected) << offset;
    EXPECT_EQ(data.holeBytes(), 1'000'003);
}

TEST(Reassembly, LocatesRangesInSequenceOrder)
{
    // "abcdefghij": the middle came first, then the beginning, then the end with a loss in between.
    const ScriptedCapture capture =
        captured({{-1, "", SYN}, {3, "def"}, {0, "abc"}, acknowledged(6), {6, "", ACK}, {6, "gh"}, {12, "m"}, {0, "abcdefgh"}}, 5);
    const TCPStream stream = capture.stream();
    struct Case {
        const char* name;
        ByteRange range;
        ByteLocation expected;
    };
    const Case cases[] = {
        {"one packet", {4, 6}, {101, {2}}},
        {"two packets: sequence order, the earliest time", {2, 4}, {101, {3, 2}}},
        {"the whole data", {0, 13}, {101, {3, 2, 6, 7}}},
        {"lost bytes at the end of the range", {7, 12}, {105, {6}}},
        {"lost bytes only", {8, 12}, {std::nullopt, {}}},
        {"empty", {4, 4}, {std::nullopt, {}}},
        {"nothing behind the data", {13, 20}, {std::nullopt, {}}},
        {"reaching over both ends", {-5, 1}, {102, {3}}},
    };
    for (const auto& [name, range, expected] : cases) EXPECT_EQ(stream.locate(range, toServer), expected) << name;
}

TEST(Reassembly, KeepsEverySegment)
{
    const ScriptedCapture capture =
        captured({{-1, "", SYN}, acknowledged(0), {0, "abcd", ACK, 1}, acknowledged(4), acknowledged(4), {4, "", ACK | FIN}}, 1'000);
    const TCPStream stream = capture.stream();
    const auto toClient = TCPSegment::Direction::serverToClient;
    const std::vector<TCPSegment> expected = {
        {toServer, 1, 999, 0, 100}, {toClient, 2, 77, 0, 101}, {toServer, 3, 1'000, 4, 102},
        {toClient, 4, 77, 0, 103},  {toClient, 5, 77, 0, 104}, {toServer, 6, 1'004, 0, 105},
    };
    std::vector<TCPSegment> segments;
    for (std::int64_t i = 0; i < stream.segments.size(); ++i) segments.push_back(stream.segments[i]);
    EXPECT_EQ(segments, expected);
    EXPECT_EQ(stream.clientISN, 999U);
    EXPECT_EQ(stream.startTime, 100);
    EXPECT_EQ(stream.endTime, 105);
}

TEST(Reassembly, OneStreamIsReadFromSeveralThreads)
{
    ScriptedCapture capture;
    TCPPacket packet{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, 443), .flags = ACK | PSH};
    std::string sent;
    for (int i = 0; i < 2'000; ++i) {
        const std::string word = std::to_string(i) + ' ';
        packet.sequenceNumber = static_cast<std::uint32_t>(sent.size());
        capture.add(packet, DataView(word), i);
        sent += word;
    }
    const TCPStream stream = capture.stream();
    std::vector<std::thread> readers;
    std::atomic<int> right = 0;
    for (int reader = 0; reader < 4; ++reader) {
        readers.emplace_back([&, reader] {
            // Forwards in one thread, backwards in the next.
            const std::int64_t size = stream.clientToServerData.size();
            bool isRight = size == static_cast<std::int64_t>(sent.size());
            for (std::int64_t i = 0; isRight && i < size; ++i) {
                const std::int64_t offset = reader % 2 ? size - 1 - i : i;
                isRight = stream.clientToServerData.stretch(offset)[0] == static_cast<std::uint8_t>(sent[static_cast<std::size_t>(offset)]);
            }
            right += isRight;
        });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(right, 4);
}
