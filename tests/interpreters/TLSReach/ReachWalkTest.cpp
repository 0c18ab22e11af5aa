// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachWalk.h"

#include "Sealscope/TLSDissector.h"
#include "harness/Hex.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "tests/interpreters/TLSReach/GnuTLSSession.h"
#include "tests/interpreters/TLSReach/Opened.h"
#include "tests/support/Sanitizer.h"

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <random>
#include <thread>

namespace sealscope {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Direction = TCPSegment::Direction;
using Stop = TLSDirectionReport::Stop;
constexpr Direction client = Direction::clientToServer;
constexpr Direction server = Direction::serverToClient;
constexpr Direction directions[] = {client, server};

/// Talk in both directions, in records of many lengths.
std::vector<TLSStep> talk()
{
    std::vector<TLSStep> steps{clientSends("GET / HTTP/1.1\r\n\r\n"), serverSends(patternBytes(17'000))};
    for (int i = 1; i < 16; ++i) {
        steps.push_back(clientSends(patternBytes(37 * i)));
        steps.push_back(serverSends(patternBytes(911 * i % 5'000 + 1)));
    }
    return steps;
}

struct Kind {
    std::string name;
    TLSSessionOptions options;
};

/// A kind of session for each suite and version that libssl speaks.
std::vector<Kind> everyKind()
{
    std::vector<Kind> kinds;
    for (const TLSSuite& suite : availableSuites(0x0304)) kinds.push_back({suite.standardName, {.version = 0x0304, .suites = suite.name}});
    for (const TLSSuite& suite : availableSuites(0x0303)) {
        const bool isCBC = suite.standardName.contains("_CBC_");
        const bool isOld = suite.standardName.ends_with("_SHA") || suite.standardName.ends_with("_MD5");
        for (const std::uint16_t version : {0x0303, 0x0302, 0x0301}) {
            if (version < 0x0303 && !isOld) continue;
            TLSSessionOptions options{.version = version, .suites = suite.name};
            kinds.push_back({fmt::format("{} in 0x{:04x}", suite.standardName, version), options});
            if (!isCBC) continue;
            options.usesEncryptThenMac = options.usesExtendedMasterSecret = false;
            kinds.push_back({fmt::format("{} in 0x{:04x}, MAC inside", suite.standardName, version), options});
        }
    }
    return kinds;
}

/// The same once more, spoken, and what opens of it.
struct Spoken {
    Kind kind;
    TLSSession session;
    std::shared_ptr<const ReachProbe> probe;
    Opened whole[2];  ///< of the client and of the server
};

const std::vector<Spoken>& everySession()
{
    static const std::vector<Spoken> sessions = [] {
        std::vector<Spoken> made;
        for (const Kind& kind : everyKind()) {
            Spoken& spoken = made.emplace_back(Spoken{kind, runTLS(kind.options, talk()), nullptr, {}});
            spoken.probe = probeWith(spoken.session.keyLog);
            for (const Direction direction : directions)
                spoken.whole[direction == server] = opened(*spoken.probe, vectorStream(spoken.session.flights), direction);
        }
        return made;
    }();
    return sessions;
}

TEST(ReachWalk, OpensEverySuiteThatIsSpoken)
{
    for (const auto& [kind, session, probe, whole] : everySession()) {
        const std::string& name = kind.name;
        ASSERT_TRUE(session.isComplete) << name << ": " << session.failure;
        EXPECT_TRUE(probe->probe(vectorStream(session.flights)).isDecrypted()) << name;
        for (const Direction direction : directions) {
            const auto& [records, plaintext, report] = whole[direction == server];
            EXPECT_TRUE(plaintext == session.plaintext(direction).view().text()) << name << ", " << plaintext.size() << " bytes";
            EXPECT_EQ(report.stop, Stop::endOfData) << name;
            EXPECT_EQ(report.openedRecords, report.protectedRecords) << name;
            EXPECT_TRUE(report.gaps.empty()) << name;
        }
    }
}

void lose(StreamPiece& piece)
{
    piece.packetId.reset();
    piece.lostBytes = std::exchange(piece.bytes, Data()).size();
}

/// Keeps the plaintext that interpreters are offered.
class PlaintextTaker final : public StreamHost {
public:
    std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream&, const StreamContext&) const override { return {}; }
    std::optional<StreamInterpretation> carriedInterpretation(const TCPStream& stream, const StreamContext&) const override
    {
        taken = stream;
        return std::nullopt;
    }
    mutable std::optional<TCPStream> taken;
};

std::int64_t heapBytes()
{
    const auto used = mallinfo2();
    return static_cast<std::int64_t>(used.uordblks + used.hblkhd);
}

// What lies behind the first megabytes is opened anew as often as somebody reads it, with whatever can be opened out of turn.
TEST(ReachWalk, HoldsNoLongPlaintext)
{
    struct Case {
        const char* name;
        TLSSessionOptions options;
        bool losesRecords;  ///< whose length is known
    };
    const std::string rc4 = "NONE:+VERS-TLS1.2:+ARCFOUR-128:+SHA1:+RSA:+COMP-NULL:+SIGN-ALL:+GROUP-ALL:+CTYPE-ALL:%VERIFY_ALLOW_BROKEN";
    const Case cases[] = {{"TLS 1.3", {.version = 0x0304}, true},
                          {"TLS 1.2, AEAD", {.version = 0x0303, .suites = "ECDHE-RSA-AES128-GCM-SHA256"}, true},
                          {"TLS 1.2, blocks", {.version = 0x0303, .suites = "ECDHE-RSA-AES128-SHA256"}, false},
                          {"TLS 1.0, a record's IV is in the one before", {.version = 0x0301, .suites = "AES128-SHA"}, false},
                          {"RC4, whose key stream runs on", {.suites = rc4}, false}};
    constexpr std::int64_t length = 48 << 20, mostHeld = 20 << 20;
    for (const auto& [name, options, losesRecords] : cases) {
        const Data said = patternBytes(length);
        std::vector<std::string> records;
        for (std::int64_t offset = 0; options.suites == rc4 && offset < length; offset += 1 << 14)
            records.insert(records.end(), {"go on", std::string(said.view().sub(offset, 1 << 14).text())});
        const TLSSession session =
            options.suites == rc4 ? GnuTLSPeers::talk(rc4, records)
                                  : runTLS(options, {clientSends("GET / HTTP/1.1\r\n\r\n"), serverSends(said), clientSends("and so on")});
        ASSERT_TRUE(session.isComplete) << name << ": " << session.failure;
        const auto probe = probeWith(session.keyLog);
        std::vector<StreamPiece> pieces = streamPieces(session.flights, {.segmentSize = 60'000});
        if (losesRecords) lose(pieces[pieces.size() / 2]);
        const TCPStream stream = vectorStream(pieces);
        const std::int64_t before = heapBytes();
        PlaintextTaker host;
        probe->decryptedInterpretation(stream, {.host = &host});
        ASSERT_TRUE(host.taken) << name;
        const StreamData& data = host.taken->serverToClientData;
        EXPECT_FALSE(data.lendsForLong()) << name;
        ASSERT_EQ(data.size(), length) << name;

        const DataView expected = session.plaintext(server).view();
        const auto readFrom = [&](std::int64_t start) {
            std::int64_t wrong = 0;
            for (std::int64_t offset = start; offset < length;) {
                const auto hole = data.hole(offset);
                const DataView here = hole ? DataView() : data.stretch(offset);
                wrong += !hole && here != expected.sub(offset, here.size());
                offset = hole ? hole->upper : offset + here.size();
            }
            return wrong;
        };
        std::int64_t wrongThere = 0;
        std::thread other([&] { wrongThere = readFrom(length / 3); });
        EXPECT_EQ(readFrom(0), 0) << name;
        other.join();
        EXPECT_EQ(wrongThere, 0) << name;
        EXPECT_EQ(data.holeBytes() > 0, losesRecords) << name;
        EXPECT_TRUE(isSanitized || heapBytes() - before <= mostHeld) << name;
        // What is asked for is there for good.
        const Data far = data.slice(length - 100'000, 50'000);
        EXPECT_EQ(readFrom(0), 0) << name;
        EXPECT_EQ(far.view(), expected.sub(length - 100'000, 50'000)) << name;
    }
}

/// Loses some of the packets that carry a stream, from the flight with this number on.
std::vector<StreamPiece> withLosses(const TLSSession& session, double share, std::uint64_t seed, std::int64_t segmentSize = 1'448)
{
    std::vector<StreamPiece> pieces = streamPieces(session.flights, {.segmentSize = segmentSize});
    std::mt19937_64 random(seed);
    std::int64_t passed[2] = {};
    for (StreamPiece& piece : pieces) {
        std::int64_t& before = passed[piece.direction == client ? 0 : 1];
        before += piece.bytes.size();
        constexpr std::int64_t handshakeBytes = 4'000;
        if (before < handshakeBytes || std::uniform_real_distribution(0.0, 1.0)(random) >= share) continue;
        lose(piece);
    }
    return pieces;
}

/// Keeps so many bytes of each packet, as a snapshot length does.
std::vector<StreamPiece> snapped(const TLSSession& session, std::int64_t kept)
{
    std::vector<StreamPiece> pieces = streamPieces(session.flights);
    std::vector<StreamPiece> cut;
    for (StreamPiece& piece : pieces) {
        if (cut.size() < 8 || piece.bytes.size() <= kept) {
            cut.push_back(piece);
            continue;
        }
        StreamPiece rest = piece;
        piece.bytes = piece.bytes.sub(0, kept);
        rest.bytes = rest.bytes.sub(kept, rest.bytes.size());
        lose(rest);
        cut.insert(cut.end(), {piece, rest});
    }
    return cut;
}

/// Whether a range of a direction was captured whole.
bool isWhole(const TCPStream& stream, Direction direction, ByteRange range)
{
    for (std::int64_t at = range.lower; at < range.upper; at += stream.data(direction).stretch(at).size())
        if (stream.locate({at, at + 1}, direction).packetIds.empty()) return false;
    return true;
}

TEST(ReachWalk, OpensEveryRecordThatIsThere)
{
    std::int64_t exactGaps = 0;
    for (const auto& [kind, session, probe, whole] : everySession()) {
        const auto& [name, options] = kind;
        const bool isChained = options.version <= 0x0301 && name.contains("_CBC_");
        const bool hasMACBehind = isChained && options.usesEncryptThenMac;
        for (std::uint64_t seed = 1; seed <= 3; ++seed) {
            const bool isSnapped = seed == 3;
            const TCPStream stream = vectorStream(
                isSnapped ? snapped(session, 700) : withLosses(session, 0.08, seed, seed % 2 ? 1'448 : 300), StreamLayout::inPieces);
            for (const Direction direction : directions) {
                const auto& truth = whole[direction == server].records;
                const Opened found = opened(*probe, stream, direction);
                for (const auto& [body, plaintext] : found.records)
                    ASSERT_TRUE(truth.contains(body) && truth.at(body) == plaintext) << name << ": a record that nobody sent, at " << body;
                expectGaps(found.report.gaps, truth, name);
                exactGaps += std::ranges::count(found.report.gaps, true, &PlaintextGap::isExact);
                std::int64_t before = 0;
                for (const TLSRecord& record : TLSDissector::parseRecords(session.wire(direction))) {
                    // Without an IV of its own a record needs the end of the one before; all of it where its MAC does not cover that.
                    const std::int64_t from = hasMACBehind ? before : record.recordOffset - (isChained ? 16 : 0);
                    before = record.recordOffset;
                    if (!truth.contains(record.bodyOffset)) continue;
                    if (!isWhole(stream, direction, {from, record.endOffset()})) continue;
                    EXPECT_TRUE(found.records.contains(record.bodyOffset))
                        << name << ", seed " << seed << ": the record at " << record.recordOffset;
                }
            }
        }
    }
    EXPECT_GT(exactGaps, 0);
}

// A capture may be changed as well as cut; in what has a MAC behind the blocks the one before a record may be.
TEST(ReachWalk, ShowsNothingThatWasChanged)
{
    for (const auto& [kind, session, probe, whole] : everySession()) {
        const std::string& name = kind.name;
        const auto& truth = whole[1].records;
        const std::vector<StreamPiece> all = streamPieces(session.flights);
        std::mt19937_64 random(7);
        for (int round = 0; round < 2; ++round) {
            std::vector<StreamPiece> pieces = all;
            for (StreamPiece& piece : pieces) {
                if (random() % 10 != 0) continue;
                Bytes bytes(piece.bytes.view().begin(), piece.bytes.view().end());
                bytes[random() % bytes.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
                piece.bytes = Data(std::move(bytes));
            }
            for (const auto& [body, plaintext] : opened(*probe, vectorStream(pieces, StreamLayout::inPieces), server).records)
                ASSERT_TRUE(truth.contains(body) && truth.at(body) == plaintext) << name << ": a record that nobody sent, at " << body;
        }
    }
}

// A MAC behind the blocks is over the bytes as they were sent, and fits under whichever suite the server's hello names when it is damaged.
// One record of 256 happens to have a padding under another cipher as well, and without a cipher none has to.
TEST(ReachWalk, ShowsNothingUnderASuiteThatThePeersDoNotUse)
{
    std::vector<TLSStep> steps;
    for (int i = 0; i < 400; ++i) steps.push_back(i % 2 == 0 ? clientSends(patternBytes(40 + i)) : serverSends(patternBytes(40 + i)));
    const std::string suites[] = {"ECDHE-RSA-AES128-SHA", "ECDHE-RSA-AES128-SHA:ECDHE-RSA-AES256-SHA:ECDHE-RSA-NULL-SHA"};
    for (const std::uint16_t version : {0x0301, 0x0303}) {
        for (const std::string& offered : suites) {
            const TLSSession session = runTLS({.version = version, .suites = offered}, steps);
            const auto probe = probeWith(session.keyLog);
            for (const std::uint8_t named : {0x10, 0x12, 0x14}) {  // none, 3DES, AES-256: 0xC013 is the peers'
                for (const int damage : {0, 1, 2, 3}) {  // 1: the client's hello is lost, 2: so is what says where the MAC stands
                    std::vector<StreamPiece> pieces = streamPieces(session.flights);
                    const auto hello = std::ranges::find(pieces, server, &StreamPiece::direction);
                    Bytes bytes(hello->bytes.view().begin(), hello->bytes.view().end());
                    constexpr std::size_t sessionIDAt = TLSRecord::headerLength + 4 + 2 + 32;
                    const std::size_t suiteAt = sessionIDAt + 1 + bytes[sessionIDAt];
                    ASSERT_EQ(bytes[suiteAt + 1], 0x13);
                    bytes[suiteAt + 1] = named;
                    const Bytes encryptThenMAC{0, 22, 0, 0};
                    if (damage & 2) *(std::ranges::search(bytes, encryptThenMAC).begin() + 1) ^= 0x80;
                    hello->bytes = Data(std::move(bytes));
                    if (damage & 1) lose(pieces.front());
                    for (const Direction direction : directions)
                        EXPECT_TRUE(opened(*probe, vectorStream(pieces, StreamLayout::inPieces), direction).records.empty())
                            << fmt::format("0x{:04x}, {}, 0xC0{:02x}, {}", version, offered, named, damage);
                }
            }
        }
    }
}

// Whichever packet of the handshake is lost, what follows opens; of TLS 1.2 as long as both randoms are there.
TEST(ReachWalk, OpensBehindALostHandshake)
{
    const std::vector<TLSStep> steps{clientSends("request"), serverSends(patternBytes(2'000)), clientSends("more"), serverSends("end")};
    const Kind kinds[] = {{"1.3, AES-GCM", {.version = 0x0304}},
                          {"1.3, ChaCha20", {.version = 0x0304, .suites = "TLS_CHACHA20_POLY1305_SHA256"}},
                          {"1.2, AES-GCM", {.version = 0x0303}},
                          {"1.2, CBC", {.version = 0x0303, .suites = "ECDHE-RSA-AES128-SHA"}}};
    for (const auto& [name, options] : kinds) {
        const TLSSession session = runTLS(options, steps);
        const auto probe = probeWith(session.keyLog);
        std::map<std::int64_t, std::string> sent[2];
        for (const Direction direction : directions)
            sent[direction == server] = opened(*probe, vectorStream(session.flights), direction).records;
        const std::vector<StreamPiece> all = streamPieces(session.flights, {.segmentSize = 120});
        std::int64_t begun[2] = {};
        for (std::size_t lost = 0; lost < all.size() && begun[0] + begun[1] < 5'000; ++lost) {
            std::int64_t& start = begun[all[lost].direction == client ? 0 : 1];
            const bool isHello = start < 120;
            start += all[lost].bytes.size();
            if (isHello && options.version < 0x0304) continue;
            std::vector<StreamPiece> pieces = all;
            lose(pieces[lost]);
            const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
            for (const Direction direction : directions) {
                const auto& truth = sent[direction == server];
                const auto found = opened(*probe, stream, direction).records;
                for (const TLSRecord& record : TLSDissector::parseRecords(session.wire(direction))) {
                    if (!truth.contains(record.bodyOffset) || !isWhole(stream, direction, {record.recordOffset, record.endOffset()}))
                        continue;
                    EXPECT_TRUE(found.contains(record.bodyOffset) && found.at(record.bodyOffset) == truth.at(record.bodyOffset))
                        << name << ", without piece " << lost << ": the record at " << record.recordOffset;
                }
            }
        }
    }
}

TEST(ReachWalk, CountsWhatIsLost)
{
    const TLSSession session = runTLS({.version = 0x0303}, {serverSends(patternBytes(200'000))});
    std::vector<StreamPiece> pieces = streamPieces(session.flights);
    // One segment within a record, and further on one with a header in it: two records that touch.
    std::int64_t at = 0;
    for (StreamPiece& piece : pieces) {
        if (piece.direction != server) continue;
        const ByteRange range{at, at + piece.bytes.size()};
        at = range.upper;
        const auto records = TLSDissector::parseRecords(session.wire(server));
        const auto holds = [&](const TLSRecord& record) {
            return record.declaredLength > 16'000 && range.lower <= record.recordOffset && record.recordOffset < range.upper;
        };
        const bool isInside = range.lower < 40'000 && range.upper >= 40'000;
        const bool hasHeader = range.lower > 100'000 && range.lower < 118'000 && std::ranges::any_of(records, holds);
        if (!isInside && !hasHeader) continue;
        lose(piece);
    }
    const Opened found = opened(*probeWith(session.keyLog), vectorStream(pieces, StreamLayout::inPieces), server);
    EXPECT_EQ(found.report.stop, Stop::endOfData);
    EXPECT_EQ(found.report.skippedRecords, 3);
    EXPECT_EQ(found.report.gaps.size(), 2u);
    EXPECT_EQ(static_cast<std::int64_t>(found.plaintext.size()), 200'000 - 3 * 16'384);
}

TEST(ReachWalk, BoundsItsWork)
{
    // Headers at every turn, behind them nothing that any key opens, and bytes that were lost in between.
    const Kind kinds[] = {{"AES-GCM", {.version = 0x0304}},
                          {"ChaCha20", {.version = 0x0304, .suites = "TLS_CHACHA20_POLY1305_SHA256"}},
                          {"AES-GCM with a nonce of its own", {.version = 0x0303}},
                          {"CBC", {.version = 0x0303, .suites = "ECDHE-RSA-AES128-SHA"}}};
    for (const auto& [name, options] : kinds) {
        const TLSSession session = runTLS(options, {serverSends("x")});
        std::vector<StreamPiece> pieces = streamPieces(session.flights);
        const Data forged = patternBytes(48);
        for (int i = 0; i < 5'000; ++i) {
            Bytes wire{23, 3, 3, 0, 48};
            wire.insert(wire.end(), forged.view().begin(), forged.view().end());
            if (i % 50 == 0) wire.insert(wire.end(), {0, 23, 3});
            pieces.push_back({server, Data(std::move(wire)), 1'000 + i, 0, i % 70 == 0 ? 5'000 : 0});
        }
        const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
        ReachConnection connection(stream, ReachSecrets::of(session.keyLog));
        ReachWalk walk(connection, server);
        std::string plaintext;
        while (walk.next())
            if (walk.isApplicationData()) plaintext += walk.content().text();
        EXPECT_EQ(plaintext, "x") << name;
        EXPECT_LE(walk.mostTried(), 64) << name;
        EXPECT_GE(walk.mostTried(), 2) << name;
        const StreamData& data = stream.data(server);
        EXPECT_LE(walk.trialBytes(), 64 * (data.size() - data.holeBytes()) + 64 * 20'000) << name;
    }
}
}  // namespace
}  // namespace sealscope
