// SPDX-License-Identifier: Apache-2.0
#include "app/session/Session.h"
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"
#include "tests/support/Printers.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Direction = TCPSegment::Direction;

/// A session with a large answer, so that records lie over many packets, and one in which only the client says something.
struct Sessions {
    TLSSession large = runTLS({}, {clientSends("GET / HTTP/1.0\r\n\r\n"), serverSends(patternBytes(300'000)), clientSends("thanks")});
    TLSSession oneSided = runTLS({.version = 0x0303, .seed = 2}, {clientSends("hello?")});
    std::string keyLog = large.keyLog + oneSided.keyLog;
};
const Sessions& sessions()
{
    static const Sessions made;
    return made;
}

std::string write(const TempDirectory& directory)
{
    const auto first = tcpSegments(sessions().large.flights, {.clientISN = 0xFFFF'FF00});
    const auto second = tcpSegments(
        sessions().oneSided.flights,
        {.client = endpoint("2001:db8::1", 50'000), .server = endpoint("2001:db8::2", 8'443), .startTime = 1'700'000'000'050'500'000});
    directory.write("keys.txt", sessions().keyLog);
    return directory.write("capture.pcap", pcapFile(packets(merged({first, second}))));
}

std::vector<std::string> filesIn(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

/// The checksum of a packet's IP or TCP part, word by word as RFC 1071 §1 says it; 0 when the stored one is right.
std::uint16_t internetChecksum(DataView bytes, std::uint32_t sum)
{
    for (std::int64_t i = 0; i < bytes.size(); i += 2) sum += static_cast<std::uint32_t>(bytes.u8(i) << 8 | bytes.u8(i + 1));
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

void expectRightChecksums(const CapturedPacket& packet)
{
    const DataView ip = packet.frame.from(14);
    const bool isIPv6 = packet.frame.u16(12) == 0x86DD;
    const DataView tcp = ip.from(isIPv6 ? 40 : 20);
    const DataView addresses = isIPv6 ? ip.sub(8, 32) : ip.sub(12, 8);
    EXPECT_TRUE(isIPv6 || internetChecksum(ip.sub(0, 20), 0) == 0) << packet.number;
    std::uint32_t pseudoHeader = 6 + static_cast<std::uint32_t>(tcp.size());
    for (std::int64_t i = 0; i < addresses.size(); i += 2) pseudoHeader += addresses.u16(i);
    EXPECT_EQ(internetChecksum(tcp, pseudoHeader), 0) << packet.number;
}

}  // namespace

TEST(DecryptCommand, WritesThePlaintextOfEachDirectionToAFile)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const fs::path plain = directory.path() / "plain";
    const ProgramResult result = sealscope({"decrypt", "--json", "-k", directory.file("keys.txt"), "--output", plain.string(), capture});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(filesIn(plain), testing::ElementsAre("stream-0-client.bin", "stream-0-server.bin", "stream-1-client.bin"));
    EXPECT_TRUE(readFile(plain / "stream-0-client.bin") == sessions().large.clientPlaintext);
    EXPECT_TRUE(readFile(plain / "stream-0-server.bin") == sessions().large.serverPlaintext);
    EXPECT_TRUE(readFile(plain / "stream-1-client.bin") == sessions().oneSided.clientPlaintext);
    for (const auto& entry : fs::directory_iterator(plain))
        EXPECT_EQ(entry.status().permissions(), fs::perms::owner_read | fs::perms::owner_write) << entry.path();
    const auto rows = jsonLines(result.output);
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows[0]["serverFile"], (plain / "stream-0-server.bin").string());
    EXPECT_EQ(rows[0]["serverPlaintextBytes"], 300'000);
    EXPECT_EQ(rows[1]["serverFile"], json());
}

std::vector<std::pair<fs::path, std::string>> everyCaptureAndReach(const fs::path& folder)
{
    std::vector<std::pair<fs::path, std::string>> all;
    for (const auto& capture : fs::directory_iterator(folder))
        if (fs::exists(capture.path() / "capture.pcap"))
            for (const char* reach : {"strict", "full"}) all.emplace_back(capture.path(), reach);
    return all;
}

TEST(DecryptCommand, OpensWhatRealClientsAndServersSaid)
{
    const fs::path captures = fs::path(SEALSCOPE_SOURCE_DIR) / "tests/captures";
    for (const auto& [capture, reach] : everyCaptureAndReach(captures)) {
        const bool isStrict = reach == "strict";
        const TempDirectory directory;
        const ProgramResult result = sealscope({"decrypt", "--reach", reach, "-k", (capture / "keylog.txt").string(), "--output",
                                                directory.path().string(), (capture / "capture.pcap").string()});
        EXPECT_EQ(result.status, 0) << capture;
        for (const auto& known : fs::directory_iterator(capture)) {
            // "stream-0-client.bin" is all that was said, ".opens.bin" the part that the TLS plug-in opens, ".contains.bin" some of it.
            const std::string name = known.path().filename().string();
            if (!name.starts_with("stream-")) continue;
            const std::string written = name.substr(0, name.find('.')) + ".bin";
            const bool isContained = name.ends_with(".contains.bin");
            fs::path opens = known.path();
            opens.replace_extension(".opens.bin");
            const bool isPart = name.ends_with(".opens.bin");
            if (isStrict ? !isPart && fs::exists(opens) : isPart) continue;
            const Data expected = readFile(known.path());
            if (expected.isEmpty()) {
                EXPECT_FALSE(fs::exists(directory.path() / written)) << known.path() << ", " << reach;
                continue;
            }
            const Data opened = readFile(directory.path() / written);
            const bool isThere = opened.view().text().find(expected.view().text()) != std::string_view::npos;
            EXPECT_TRUE(isContained ? isThere : opened == expected) << known.path() << ", " << reach;
        }
    }
}

TEST(DecryptCommand, ReplacesFilesOnlyWhenForced)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const fs::path plain = directory.path() / "plain";
    fs::create_directory(plain);
    writeFile(plain / "stream-0-server.bin", DataView(std::string_view("mine")));
    std::vector<std::string> arguments{"decrypt", "-k", directory.file("keys.txt"), "--output", plain.string(), "--stream", "0", capture};
    const ProgramResult refused = sealscope(arguments);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, "sealscope: " + (plain / "stream-0-server.bin").string() + ": exists already; --force replaces it\n");
    EXPECT_EQ(readFile(plain / "stream-0-server.bin").view().text(), "mine");
    arguments.emplace_back("--force");
    EXPECT_EQ(sealscope(arguments).status, 0);
    EXPECT_TRUE(readFile(plain / "stream-0-server.bin") == sessions().large.serverPlaintext);
    EXPECT_EQ(filesIn(plain).size(), 2) << "nothing else is left behind";
}

TEST(DecryptCommand, TellsWhatItCannotWrite)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const std::string keyLog = directory.file("keys.txt");
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string message;
    };
    const std::string missing = directory.file("missing");
    // Somebody may wait there for what others decrypt.
    const fs::path piped = directory.path() / "piped";
    fs::create_directory(piped);
    ASSERT_EQ(mkfifo((piped / "stream-0-client.bin").c_str(), 0666), 0);
    const Case cases[] = {
        {{}, 2, "'decrypt' wants "},
        {{"--output", missing + "/folder"}, 1, missing + "/folder: No such file or directory"},
        {{"--output", piped.string()}, 1, (piped / "stream-0-client.bin").string() + ": is no regular file"},
        {{"--output", piped.string(), "--force"}, 1, (piped / "stream-0-client.bin").string() + ": is no regular file"},
        {{"--output", keyLog}, 1, keyLog + ": is not a directory"},
        {{"--pcap", missing + "/plain.pcap"}, 1, missing + "/plain.pcap: No such file or directory"},
        {{"--pcap", keyLog}, 1, keyLog + ": exists already; --force replaces it"},
        {{"--pcap", directory.path().string()}, 1, directory.path().string() + ": is a directory"},
        {{"--pcap", "/dev/full"}, 1, "/dev/full: No space left on device"},
    };
    for (const auto& [arguments, status, message] : cases) {
        std::vector<std::string> all{"decrypt", "-k", keyLog, capture};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ProgramResult result = sealscope(all);
        EXPECT_EQ(result.status, status) << message;
        EXPECT_THAT(result.errors, testing::StartsWith("sealscope: " + message));
        EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    }
}

TEST(DecryptCommand, WritesACaptureOfThePlaintext)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const std::string plain = directory.file("plain.pcap");
    const ProgramResult result = sealscope({"decrypt", "--json", "-k", directory.file("keys.txt"), "--pcap", plain, capture});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(fs::status(plain).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // The connections are whole, between the same endpoints and within the same times.
    const auto original = Session::open({.files = {capture}});
    const auto opened = Session::open({.files = {plain}});
    ASSERT_TRUE(original && opened);
    ASSERT_EQ((*opened)->streamCount(), 2);
    for (const std::int64_t number : {0, 1}) {
        const TLSSession& session = number == 0 ? sessions().large : sessions().oneSided;
        const TCPStream stream = (*opened)->stream(number);
        EXPECT_TRUE(stream.clientToServerData.whole() == session.clientPlaintext) << number;
        EXPECT_TRUE(stream.serverToClientData.whole() == session.serverPlaintext) << number;
        const StreamSummary before = (*original)->summary(number);
        const StreamSummary after = (*opened)->summary(number);
        EXPECT_EQ(after.client, before.client);
        EXPECT_EQ(after.server, before.server);
        EXPECT_EQ(after.missingBytes, 0);
        EXPECT_TRUE(after.hasSYN);
        EXPECT_DOUBLE_EQ(after.startTime, before.startTime);
        EXPECT_DOUBLE_EQ(after.endTime, before.endTime);
    }
    // Each record travels at the time of its first packet.
    const TCPStream encrypted = (*original)->stream(1);
    const std::int64_t last = encrypted.clientToServerData.size() - 1;
    EXPECT_EQ((*opened)->stream(1).locate({0, 1}, Direction::clientToServer).timestamp,
              encrypted.locate({last, last + 1}, Direction::clientToServer).timestamp);

    // Every packet is in order of time, with flags, lengths and checksums that a receiver would accept.
    const auto file = Capture::open({plain}, {});
    ASSERT_TRUE(file);
    PacketDecoder decoder;
    CapturedPacket packet;
    TCPPacket segment;
    double time = 0;
    std::int64_t opening = 0, closing = 0;
    while ((*file)->next(packet)) {
        EXPECT_GE(packet.time.value(), time);
        time = packet.time.value();
        ASSERT_TRUE(decoder.decode(packet, segment));
        expectRightChecksums(packet);
        EXPECT_EQ(packet.originalLength, packet.frame.size());
        opening += (segment.flags & TCPFlag::syn) != 0;
        closing += (segment.flags & TCPFlag::fin) != 0;
    }
    EXPECT_TRUE((*file)->errors().empty());
    EXPECT_EQ(opening, 4);
    EXPECT_EQ(closing, 4);
}

TEST(DecryptCommand, WritesACaptureToStandardOutputAlone)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const std::vector<std::string> arguments{"decrypt", "-k", directory.file("keys.txt"), "--stream", "1", "--pcap"};
    auto toFile = arguments, toOutput = arguments;
    toFile.insert(toFile.end(), {directory.file("plain.pcap"), capture});
    toOutput.insert(toOutput.end(), {"-", capture});
    EXPECT_EQ(sealscope(toFile).status, 0);
    EXPECT_EQ(sealscope(toOutput).output, readFile(directory.file("plain.pcap")).view().text());
}

TEST(DecryptCommand, PutsSecretsIntoACaptureAndTakesThemOutAgain)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const std::string opened = directory.file("opened.pcapng");
    const ProgramResult injected =
        sealscope({"decrypt", "-k", directory.file("keys.txt"), "--stream", "0", "--inject-secrets", opened, capture});
    EXPECT_EQ(injected.status, 0);
    EXPECT_EQ(injected.output, "");
    EXPECT_EQ(injected.errors, "sealscope: " + opened + ": carries secrets for 1 connection\n");
    const auto verdicts = [](const std::string& file) {
        std::vector<std::string> names;
        for (const json& row : jsonLines(sealscope({"streams", "--json", file}).output)) names.push_back(row["verdict"]);
        return names;
    };
    EXPECT_THAT(verdicts(opened), testing::ElementsAre("decrypted", "noKeyMaterial")) << "only what its connections need";
    EXPECT_EQ(sealscope({"packets", "--json", opened}).output, sealscope({"packets", "--json", capture}).output);

    const std::string shared = directory.file("shared.pcapng");
    EXPECT_EQ(sealscope({"decrypt", "--strip-secrets", shared, opened}).status, 0);
    EXPECT_THAT(verdicts(shared), testing::ElementsAre("noKeyMaterial", "noKeyMaterial"));
    EXPECT_EQ(readFile(shared).view().text().find("CLIENT_TRAFFIC_SECRET_0"), std::string_view::npos);
    EXPECT_EQ(sealscope({"packets", "--json", shared}).output, sealscope({"packets", "--json", capture}).output);
    for (const std::string& file : {opened, shared})
        EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(DecryptCommand, SaysWhereADirectionStops)
{
    const TempDirectory directory;
    // As much as is opened on one thread and written on another.
    const TLSSession session = runTLS(
        {}, {clientSends("all of it"), serverSends(patternBytes(6'000'000)), serverDoes(TLSStep::Action::updateKey), serverSends("rest")});
    const std::string capture = directory.write("capture.pcap", pcapFile(packets(tcpSegments(session.flights))));
    std::string serverOnly = session.keyLog;
    serverOnly.replace(serverOnly.find("CLIENT_TRAFFIC_SECRET_0"), 6, "OTHERS");
    struct Case {
        std::string keyLog;
        std::string text;
        const char* clientStop;
    };
    const Case cases[] = {
        {session.keyLog, "stream-0-client.bin, " + directory.file("stream-0-server.bin") + "; server ", "endOfData"},
        {serverOnly, "stream-0-server.bin; client 0 of 2 records, 0 bytes, the key log lacks this direction's secret; server ", "noSecret"},
    };
    for (const auto& [text, sentence, clientStop] : cases) {
        const std::string keyLog = directory.write("keys.txt", text);
        const std::vector<std::string> arguments{
            "decrypt", "--reach", "strict", "--force", "-k", keyLog, "--output", directory.path().string(), capture};
        const ProgramResult result = sealscope(arguments);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, testing::HasSubstr(sentence));
        EXPECT_THAT(result.output, testing::HasSubstr("6000000 bytes, up to byte "));
        EXPECT_THAT(result.output, testing::HasSubstr(", where a key update changed the key"));
        EXPECT_TRUE(readFile(directory.path() / "stream-0-server.bin") == patternBytes(6'000'000));
        auto withJSON = arguments;
        withJSON.emplace_back("--json");
        const json reason = jsonLines(sealscope(withJSON).output).at(0)["reason"];
        EXPECT_EQ(reason["server"]["stop"], "keyUpdate");
        EXPECT_EQ(reason["server"]["plaintextBytes"], 6'000'000);
        EXPECT_EQ(reason["client"]["stop"], clientStop);
    }
}

TEST(DecryptCommand, SaysThatNothingDecrypts)
{
    const TempDirectory directory;
    const std::string capture = write(directory);
    const ProgramResult result = sealscope({"decrypt", "--output", directory.path().string(), capture});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "sealscope: none of 2 TLS connections decrypts; 'sealscope streams' says why\n");
    EXPECT_THAT(result.output, testing::HasSubstr("no key material"));
}

}  // namespace sealscope::cli
