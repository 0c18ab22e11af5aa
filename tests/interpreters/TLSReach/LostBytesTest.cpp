// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDissector.h"
#include "harness/Hex.h"
#include "harness/TCPConversation.h"
#include "tests/interpreters/TLSReach/GnuTLSSession.h"
#include "tests/interpreters/TLSReach/Opened.h"
#include "tests/streams/ScriptedCapture.h"

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sealscope {
namespace {

using Direction = TCPSegment::Direction;
using Stop = TLSDirectionReport::Stop;
constexpr Direction directions[] = {Direction::clientToServer, Direction::serverToClient};

enum class Loss : std::uint8_t { insideRecord, wholeRecords, handshake, hello, beginning, twice, order, snapshot, unknownLength };
constexpr std::pair<Loss, const char*> losses[] = {
    {Loss::insideRecord, "a segment within a record"},
    {Loss::wholeRecords, "several records"},
    {Loss::handshake, "handshake behind the hellos"},
    {Loss::hello, "the client's hello"},
    {Loss::beginning, "all up to the middle"},
    {Loss::twice, "captured twice"},
    {Loss::order, "out of order"},
    {Loss::snapshot, "cut short"},
    {Loss::unknownLength, "nobody knows how many"},
};

// What of a suite decides how it gets on behind lost bytes.
enum class Trait : std::uint8_t {
    tls13,       ///< needs no hello
    numbered,    ///< every record opens by itself
    chained,     ///< a record needs the last block of the one before
    chainedMAC,  ///< and that this one opened, since nothing else authenticates that block
    keyStream,   ///< needs to know how many bytes were protected before
};

struct Suite {
    const char* name;  ///< libssl's; a priority of GnuTLS where it begins with "NONE"
    std::uint16_t version;
    Trait trait;
    bool hasMACBehind = true;  ///< of blocks
};

#define GNUTLS(cipher, mac) "NONE:+VERS-TLS1.2:+" cipher ":+" mac ":+RSA:+COMP-NULL:+SIGN-ALL:+GROUP-ALL:+CTYPE-ALL:%VERIFY_ALLOW_BROKEN"
constexpr Suite suites[] = {
    {"TLS_AES_128_GCM_SHA256", 0x0304, Trait::tls13},          {"TLS_AES_256_GCM_SHA384", 0x0304, Trait::tls13},
    {"TLS_CHACHA20_POLY1305_SHA256", 0x0304, Trait::tls13},    {"TLS_AES_128_CCM_SHA256", 0x0304, Trait::tls13},
    {"TLS_AES_128_CCM_8_SHA256", 0x0304, Trait::tls13},        {"ECDHE-RSA-AES128-GCM-SHA256", 0x0303, Trait::numbered},
    {"ECDHE-RSA-AES256-GCM-SHA384", 0x0303, Trait::numbered},  {"ECDHE-ECDSA-CHACHA20-POLY1305", 0x0303, Trait::numbered},
    {"ECDHE-ECDSA-AES128-CCM", 0x0303, Trait::numbered},       {"ECDHE-ECDSA-AES256-CCM8", 0x0303, Trait::numbered},
    {"ECDHE-ARIA128-GCM-SHA256", 0x0303, Trait::numbered},     {GNUTLS("CAMELLIA-128-GCM", "AEAD"), 0x0303, Trait::numbered},
    {"ECDHE-RSA-AES128-SHA", 0x0303, Trait::numbered},         {"ECDHE-RSA-AES128-SHA", 0x0303, Trait::numbered, false},
    {"ECDHE-RSA-AES128-SHA256", 0x0303, Trait::numbered},      {"ECDHE-RSA-AES128-SHA256", 0x0303, Trait::numbered, false},
    {"ECDHE-RSA-AES256-SHA384", 0x0303, Trait::numbered},      {"ECDHE-RSA-AES256-SHA384", 0x0303, Trait::numbered, false},
    {"ECDHE-RSA-CAMELLIA128-SHA256", 0x0303, Trait::numbered}, {GNUTLS("3DES-CBC", "SHA1"), 0x0303, Trait::numbered},
    {GNUTLS("ARCFOUR-128", "SHA1"), 0x0303, Trait::keyStream}, {"ECDHE-RSA-NULL-SHA", 0x0303, Trait::numbered},
    {"ECDHE-RSA-AES128-SHA", 0x0302, Trait::numbered},         {"ECDHE-RSA-AES128-SHA", 0x0302, Trait::numbered, false},
    {"ECDHE-RSA-AES128-SHA", 0x0301, Trait::chainedMAC},       {"ECDHE-RSA-AES128-SHA", 0x0301, Trait::chained, false},
};
#undef GNUTLS

/// A session in which both sides send records of many lengths by turns, and what opens of it without losses.
struct Spoken {
    explicit Spoken(const Suite& suite)
    {
        std::vector<std::string> texts;
        std::vector<TLSStep> steps;
        for (int i = 0; i < 24; ++i) {
            for (const bool isClient : {true, false}) {
                const Data payload = patternBytes(isClient ? 40 + 631 * i % 900 : 200 + 911 * i % 2'300, static_cast<std::uint64_t>(i) + 1);
                texts.emplace_back(payload.view().text());
                steps.push_back(isClient ? clientSends(payload) : serverSends(payload));
            }
        }
        session = std::string_view(suite.name).starts_with("NONE") ? GnuTLSPeers::talk(suite.name, texts)
                                                                   : runTLS({.version = suite.version,
                                                                             .suites = suite.name,
                                                                             .usesEncryptThenMac = suite.hasMACBehind,
                                                                             .usesExtendedMasterSecret = suite.hasMACBehind},
                                                                            steps);
        probe = probeWith(session.keyLog);
    }
    TLSSession session;
    std::shared_ptr<const ReachProbe> probe;
};

/// A capture that a loss has happened to, and what it still holds.
class LossyCapture {
public:
    using Truth = std::map<std::int64_t, std::string>;  ///< plaintext of each record, by where its body begins

    LossyCapture(const TLSSession& session, Loss loss, const Truth (&truth)[2])
    {
        std::vector<PlannedSegment> segments = tcpSegments(session.flights, {.segmentSize = 120, .acknowledges = false});
        if (loss == Loss::twice) disturb(segments, {.retransmitted = 0.4, .overlapping = 0.3});
        if (loss == Loss::order) disturb(segments, {.reordered = 0.4});
        std::uint32_t base[2] = {}, removed[2] = {};
        ScriptedCapture capture;
        for (const PlannedSegment& segment : segments) {
            const std::size_t side = segment.direction == Direction::clientToServer ? 0 : 1;
            if (segment.flags & 0x02) base[side] = segment.sequenceNumber + 1;
            const auto offset = static_cast<std::int64_t>(segment.sequenceNumber - base[side]);
            const ByteRange range{offset, offset + segment.payload.size()};
            std::int64_t kept = range.size();
            if (range.size() == 0 ? loss == Loss::beginning : isLost(loss, side == 0, range, truth[side])) {
                kept = loss == Loss::snapshot ? 70 : 0;
                if (loss == Loss::unknownLength) removed[side] += static_cast<std::uint32_t>(range.size());
                if (kept == 0) continue;
            }
            std::vector<bool>& held = held_[side];
            if (range.size() > 0 && std::ssize(held) < range.upper) held.resize(static_cast<std::size_t>(range.upper));
            if (begin_[side] < 0 && kept > 0) begin_[side] = loss == Loss::beginning ? offset : 0;
            if (kept > 0) {
                std::fill_n(held.begin() + offset, kept, true);
                shift_[side][offset] = removed[side];
            }
            capture.add({.source = segment.source,
                         .destination = segment.destination,
                         .sequenceNumber = segment.sequenceNumber - removed[side],
                         .acknowledgmentNumber = segment.acknowledgmentNumber,
                         .flags = segment.flags},
                        segment.payload, static_cast<double>(segment.time) / 1e9, kept < range.size() ? kept : -1);
        }
        stream = capture.stream();
    }

    /// Whether all bytes of a range were captured, and lie together.
    bool holds(Direction direction, ByteRange range) const
    {
        const std::vector<bool>& held = held_[direction == Direction::clientToServer ? 0 : 1];
        return std::ssize(held) >= range.upper &&
               std::find(held.begin() + range.lower, held.begin() + range.upper, false) == held.begin() + range.upper;
    }
    /// Where a byte that was captured lies in the stream.
    std::int64_t placeOf(Direction direction, std::int64_t offset) const
    {
        const std::size_t side = direction == Direction::clientToServer ? 0 : 1;
        return offset - begin_[side] - std::prev(shift_[side].upper_bound(offset))->second;
    }

    TCPStream stream;

private:
    static bool isLost(Loss loss, bool isClient, ByteRange range, const Truth& truth)
    {
        const auto bodyOf = [&](int number) { return std::next(truth.begin(), number)->first; };
        const std::int64_t helloEnd = 120, dataStart = truth.begin()->first - TLSRecord::headerLength;
        const auto touches = [&](std::int64_t lower, std::int64_t upper) { return range.lower < upper && lower < range.upper; };
        switch (loss) {
        case Loss::insideRecord:
            for (const int number : {7, 13})
                if (bodyOf(number) <= range.lower && range.lower < bodyOf(number) + 120 &&
                    range.upper <= bodyOf(number + 1) - TLSRecord::headerLength)
                    return true;
            return false;
        case Loss::wholeRecords:
        case Loss::unknownLength: return touches(bodyOf(8), bodyOf(11));
        // A hello and the randoms in it are in front; the client's may be longer than the server's.
        case Loss::handshake: return range.lower >= (isClient ? 5 * helloEnd : helloEnd) && range.upper <= dataStart;
        case Loss::hello: return isClient && range.upper <= dataStart;
        case Loss::beginning: return range.lower < bodyOf(6);
        case Loss::snapshot: return range.lower > dataStart && range.lower % 3 == 0 && range.size() > 70;
        case Loss::twice:
        case Loss::order: return false;
        }
        return false;
    }

    std::vector<bool> held_[2];
    std::int64_t begin_[2] = {-1, -1};
    std::map<std::int64_t, std::int64_t> shift_[2];  ///< bytes that are missing without a trace, by the offset of a segment behind
};

class LostBytes : public testing::TestWithParam<Suite> {};

TEST_P(LostBytes, LeaveTheRestOpen)
{
    const Suite& suite = GetParam();
    const Spoken spoken(suite);
    const TLSSession& session = spoken.session;
    ASSERT_TRUE(session.isComplete) << session.failure;
    LossyCapture::Truth truth[2];
    for (const Direction direction : directions) {
        const Opened whole = opened(*spoken.probe, vectorStream(session.flights), direction);
        ASSERT_EQ(whole.plaintext, session.plaintext(direction).view().text());
        truth[direction == Direction::clientToServer ? 0 : 1] = whole.records;
    }
    for (const auto& [loss, lossName] : losses) {
        const LossyCapture capture(session, loss, truth);
        // The randoms of both hellos are part of the keys of TLS 1.2.
        const bool hasKeys = suite.trait == Trait::tls13 || loss != Loss::beginning;
        for (const Direction direction : directions) {
            const std::string name = fmt::format("{}, from {}", lossName, direction == Direction::clientToServer ? "client" : "server");
            const auto& sent = truth[direction == Direction::clientToServer ? 0 : 1];
            const Opened found = opened(*spoken.probe, capture.stream, direction);
            std::size_t expected = 0, missing = 0;
            bool isBroken = !hasKeys, lacksOneBefore = false;
            for (const TLSRecord& record : TLSDissector::parseRecords(session.wire(direction))) {
                const std::int64_t needed = suite.trait == Trait::chained ? record.recordOffset - 16 : record.recordOffset;
                const bool isThere = capture.holds(direction, {std::max<std::int64_t>(needed, 0), record.endOffset()});
                const bool opensAlone = !(suite.trait == Trait::chainedMAC && lacksOneBefore);
                lacksOneBefore = !isThere;
                // Nothing finds the place in a key stream again of which nobody knows how much was lost.
                isBroken = isBroken || (!isThere && suite.trait == Trait::keyStream &&
                                        (loss == Loss::unknownLength || loss == Loss::handshake || loss == Loss::hello));
                const auto said = sent.find(record.bodyOffset);
                if (said == sent.end() || !isThere || !opensAlone || isBroken) {
                    missing += said != sent.end();
                    continue;
                }
                ++expected;
                const auto got = found.records.find(capture.placeOf(direction, record.bodyOffset));
                EXPECT_TRUE(got != found.records.end() && got->second == said->second) << name << ": the record at " << record.recordOffset;
            }
            EXPECT_EQ(found.records.size(), expected) << name << ": nothing else is claimed";
            if (missing == 0) {
                EXPECT_EQ(found.report.stop, Stop::endOfData) << name;
                EXPECT_TRUE(found.report.gaps.empty() || loss == Loss::hello || loss == Loss::handshake) << name;
            } else if (hasKeys && loss != Loss::beginning) {
                EXPECT_TRUE(expected == 0 || !found.report.gaps.empty()) << name << ": what is missing is told";
                if (loss != Loss::unknownLength) expectGaps(found.report.gaps, sent, name);
            } else if (!hasKeys) {
                EXPECT_EQ(spoken.probe->probe(capture.stream).failure, TLSDecryptionFailure::noHandshake) << name;
            }
            if (!isBroken || !hasKeys) continue;
            EXPECT_NE(found.report.stop, Stop::endOfData) << name;
            if (expected > 0) {
                EXPECT_EQ(found.report.gaps.back().range.upper, capture.stream.data(direction).size()) << name << ": closed from there on";
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(OfEverySuite, LostBytes, testing::ValuesIn(suites), [](const auto& instance) {
    std::string name = instance.param.name;
    if (const std::size_t cipher = name.find(":+", 5); name.starts_with("NONE"))
        name = name.substr(cipher + 2, name.find(':', cipher + 2) - cipher - 2);
    std::erase_if(name, [](char letter) { return letter == '-' || letter == '_'; });
    return fmt::format("{}_{:04x}{}", name, instance.param.version, instance.param.hasMACBehind ? "" : "_MACInside");
});

}  // namespace
}  // namespace sealscope
