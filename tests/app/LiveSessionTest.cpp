// SPDX-License-Identifier: Apache-2.0
// What is followed packet by packet is what the whole capture holds.
#include "app/session/LiveSession.h"

#include "app/capture/Capture.h"
#include "app/plugins/PlugInLoader.h"
#include "app/session/Session.h"
#include "harness/CaptureFile.h"
#include "harness/HTTP2Writer.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <ranges>
#include <thread>

namespace sealscope {
namespace {

using Lines = std::vector<std::string>;

std::string attribute(const std::optional<StreamMessage>& message, std::string_view key)
{
    const VELValue* const value = message ? message->attribute(key) : nullptr;
    const auto* const text = value ? std::get_if<std::string>(value) : nullptr;
    const auto* const number = value ? std::get_if<std::int64_t>(value) : nullptr;
    return text ? *text : number ? std::to_string(*number) : "-";
}

/// Of long bodies the length.
std::string bodyText(const std::optional<StreamMessage>& message)
{
    if (!message || !message->body) return "";
    if (message->body->length() > 100) return fmt::format("{} bytes", message->body->length());
    return std::string(message->body->bytes().view().text());
}

std::string line(const Exchange& exchange)
{
    const auto& [request, reply] = exchange;
    return fmt::format("{} {} \"{}\" {} \"{}\" {:.6f}", attribute(request, "method"), attribute(request, "url"), bodyText(request),
                       attribute(reply, "status"), bodyText(reply), exchange.time());
}

class Live : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const TempDirectory settings;
        for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME"}) setenv(variable, settings.path().c_str(), 1);
        for (const char* variable : {"SSLKEYLOGFILE", "SEALSCOPE_PLUGIN_PATH"}) unsetenv(variable);
        PlugInLoader::load({});
    }

    /// What the capture holds, looked at as a whole.
    static Lines whole(const std::string& file, const std::string& keyLog)
    {
        const auto session = Session::open({.files = {file}, .keyLogs = {keyLog}});
        Lines lines;
        for (std::int64_t stream = 0; stream < (*session)->streamCount(); ++stream)
            if (auto interpretation = applicationInterpretation(**session, (*session)->stream(stream)))
                for (const Exchange& exchange : exchangesOf(*std::move(interpretation))) lines.push_back(line(exchange));
        return lines;
    }

    struct Followed {
        Lines lines;
        std::int64_t mostHeld = 0;
        std::int64_t openAtTheEnd = 0;
    };
    /// The same, read after so many packets each time; `whenAllCame` happens before the last look.
    static Followed follow(const std::string& file, LiveSessionOptions options, int packetsPerRead, const std::function<void()>& whenAllCame = {})
    {
        Followed followed;
        LiveSession session(std::move(options));
        const LiveSession::Take take = [&](const LiveExchange& found) { followed.lines.push_back(line(found.exchange)); };
        const auto capture = Capture::open({file}, {});
        CapturedPacket packet;
        while ((*capture)->next(packet)) {
            session.add(packet);
            if (packet.number % packetsPerRead != 0) continue;
            session.read(take);
            followed.mostHeld = std::max(followed.mostHeld, session.held());
        }
        if (whenAllCame) {
            session.read(take);
            whenAllCame();
        }
        session.finish(take);
        followed.openAtTheEnd = session.openConnections();
        return followed;
    }

    const TempDirectory directory;
};

TEST_F(Live, FindsInRealTrafficWhatTheWholeCaptureHolds)
{
    namespace fs = std::filesystem;
    const fs::path captures = fs::path(SEALSCOPE_SOURCE_DIR) / "tests/captures";
    int found = 0;
    for (const fs::path& folder : {captures, captures / "web"}) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            const std::string name = entry.path().filename().string(), file = (entry.path() / "capture.pcap").string();
            if (!fs::exists(file)) continue;
            const std::string keyLog = (entry.path() / "keylog.txt").string();
            const Lines expected = whole(file, keyLog);
            if (expected.empty()) continue;
            ++found;
            for (const int packetsPerRead : {1, 5})
                EXPECT_THAT(follow(file, {.keyLogs = {keyLog}}, packetsPerRead).lines, testing::UnorderedElementsAreArray(expected)) << name;
            // Secrets of which some come when everything has been said: those of one side, or all.
            const std::string log(readFile(keyLog).view().text());
            std::string late;
            for (const auto line : log | std::views::split('\n'))
                if (const std::string_view text(line); !text.starts_with("SERVER_TRAFFIC") && !text.starts_with("CLIENT_RANDOM"))
                    late.append(text) += '\n';
            late = directory.write("late.txt", late);
            const auto write = [&] {
                directory.write("late.txt", log);
                std::this_thread::sleep_for(std::chrono::milliseconds(60));
            };
            EXPECT_THAT(follow(file, {.keyLogs = {late}}, 1, write).lines, testing::UnorderedElementsAreArray(expected)) << name;
        }
    }
    EXPECT_GE(found, 8);
}

/// A connection with as many exchanges as there are, none of which waits for another.
std::vector<PlannedSegment> manyRequests(int count, bool isHTTP2)
{
    TCPConversation connection({.server = endpoint("192.0.2.2", 80), .interval = 1'000, .segmentsPerAcknowledgment = 2});
    connection.open();
    HTTP2Writer client, server;
    const auto send = [&](TCPSegment::Direction direction, const std::string& text) { connection.send(direction, Data::fromText(text)); };
    using enum TCPSegment::Direction;
    if (isHTTP2) send(clientToServer, HTTP2Writer::preface());
    for (int i = 0; i < count; ++i) {
        const std::string body(static_cast<std::size_t>(500 + i % 2'000), 'x');
        const auto stream = static_cast<std::uint32_t>(2 * i + 1);
        if (isHTTP2) {
            send(clientToServer, client.headers(stream, HTTP2Writer::get(fmt::format("/{}", i)), HTTP2Writer::endStream));
            const std::string head = server.headers(stream, {{":status", "200"}});
            send(serverToClient, head + HTTP2Writer::data(stream, body, HTTP2Writer::endStream));
        } else {
            send(clientToServer, fmt::format("GET /{} HTTP/1.1\r\nHost: h\r\n\r\n", i));
            send(serverToClient, fmt::format("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n{:x}\r\n{}\r\n0\r\n\r\n", body.size(), body));
        }
    }
    return connection.segments;
}

TEST_F(Live, HoldsWhatIsOpenAndPutsPacketsInOrder)
{
    for (const bool isHTTP2 : {false, true}) {
        constexpr int count = 3'000;
        std::vector<PlannedSegment> segments = manyRequests(count, isHTTP2);
        const std::string file = directory.write("many.pcap", pcapFile(packets(segments)));
        const Lines expected = whole(file, "");
        ASSERT_EQ(expected.size(), count);
        const Followed followed = follow(file, {}, 16);
        EXPECT_EQ(followed.lines, expected) << "in the order in which they came";
        EXPECT_LT(followed.mostHeld, 50'000) << "of 4 MB";

        // Of a packet that is captured long after its turn nobody can tell that it will come.
        disturb(segments, {.reordered = 0.05, .retransmitted = 0.1, .overlapping = 0.05, .reach = 1});
        const std::string disturbed = directory.write("disturbed.pcap", pcapFile(packets(segments)));
        Lines found = follow(disturbed, {}, 16).lines, told = whole(disturbed, "");
        for (Lines* lines : {&found, &told}) std::ranges::sort(*lines);
        EXPECT_EQ(found, told);
    }
}

TEST_F(Live, LooksIntoTunnelsWhileTheyAreOpen)
{
    constexpr int count = 300;
    std::vector<TLSStep> said;
    for (int i = 0; i < count; ++i) {
        said.push_back(clientSends(fmt::format("GET /{} HTTP/1.1\r\nHost: h\r\n\r\n", i)));
        said.push_back(serverSends(fmt::format("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n{}", std::string(1'000, 'x'))));
    }
    struct Case { const char* name; bool isProxySecured, isServerSecured, isHTTP2 = false; };
    for (const auto& [name, isProxySecured, isServerSecured, isHTTP2] :
         {Case{"plain", false, false}, Case{"TLS in a tunnel", false, true}, Case{"a tunnel in TLS", true, false},
          Case{"TLS in a tunnel in TLS", true, true}, Case{"a tunnel in HTTP/2", false, false, true},
          Case{"TLS in a tunnel in HTTP/2", false, true, true}, Case{"TLS in a tunnel in HTTP/2 in TLS", true, true, true}}) {
        std::string secrets;
        std::vector<TLSStep> steps{clientSends("CONNECT h:443 HTTP/1.1\r\nHost: h:443\r\n\r\n"), serverSends("HTTP/1.1 200 OK\r\n\r\n")};
        HTTP2Writer client, server;
        if (isHTTP2)
            steps = {clientSends(HTTP2Writer::preface() + client.headers(1, {{":method", "CONNECT"}, {":authority", "h:443"}})),
                     serverSends(server.headers(1, {{":status", "200"}}))};
        if (isServerSecured) {
            const TLSSession session = runTLS({.seed = 2}, said);
            for (const TLSFlight& flight : session.flights) steps.push_back({.from = flight.direction, .payload = flight.wire});
            secrets = session.keyLog;
        } else {
            steps.insert(steps.end(), said.begin(), said.end());
        }
        for (std::size_t i = 2; isHTTP2 && i < steps.size(); ++i)
            steps[i].payload = Data::fromText(HTTP2Writer::data(1, std::string(steps[i].payload.view().text())));
        TCPConversation connection({.server = endpoint("192.0.2.2", 8080), .interval = 1'000});
        connection.open();
        if (isProxySecured) {
            const TLSSession session = runTLS({.seed = 3}, steps);
            connection.send(session.flights);
            secrets += session.keyLog;
        } else {
            for (const TLSStep& step : steps) connection.send(step.from, step.payload);
        }
        const std::string file = directory.write("tunnel.pcap", pcapFile(packets(connection.segments)));
        const std::string keyLog = directory.write("keys.txt", secrets);
        const Lines expected = whole(file, keyLog);
        ASSERT_EQ(expected.size(), 1 + count) << name;
        const Followed followed = follow(file, {.keyLogs = {keyLog}}, 16);
        EXPECT_EQ(followed.lines, expected) << name << ", as it goes";
        EXPECT_LT(followed.mostHeld, 150'000) << name << ", of 400 kB and more";

        const std::string late = directory.write("late.txt", "");
        const auto write = [&] {
            directory.write("late.txt", secrets);
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        };
        EXPECT_THAT(follow(file, {.keyLogs = {late}}, 16, write).lines, testing::UnorderedElementsAreArray(expected)) << name;
    }
}

// The secret of the first connection is the only one that is logged, before or after all has been said.
TEST_F(Live, OpensSessionsThatAreResumed)
{
    const std::vector<TLSStep> steps{clientSends("GET / HTTP/1.1\r\nHost: h\r\n\r\n"),
                                     serverSends("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")};
    for (const bool usesTickets : {true, false}) {
        const TLSSession begun = runTLS({.version = 0x0303, .usesTickets = usesTickets}, steps);
        const TLSSession resumed = runTLS({.version = 0x0303, .usesTickets = usesTickets, .resume = begun.resumption, .seed = 2}, steps);
        ASSERT_TRUE(resumed.isResumed);
        std::vector<PlannedSegment> segments;
        for (const auto& [session, port] : {std::pair(&begun, 50'000), std::pair(&resumed, 50'001)}) {
            TCPConversation connection({.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(port))});
            connection.open();
            connection.send(session->flights);
            segments.insert(segments.end(), connection.segments.begin(), connection.segments.end());
        }
        const std::string file = directory.write("resumed.pcap", pcapFile(packets(segments)));
        const std::string keyLog = directory.write("keys.txt", begun.keyLog);
        const Lines expected = whole(file, keyLog);
        ASSERT_EQ(expected.size(), 2);
        EXPECT_EQ(follow(file, {.keyLogs = {keyLog}}, 1).lines, expected) << usesTickets;
        const std::string late = directory.write("late.txt", "");
        const auto write = [&] {
            directory.write("late.txt", begun.keyLog);
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        };
        EXPECT_EQ(follow(file, {.keyLogs = {late}}, 1, write).lines, expected) << usesTickets;
    }
}

TEST_F(Live, GoesOnBehindLostPackets)
{
    std::vector<PlannedSegment> segments = manyRequests(200, false);
    disturb(segments, {.lost = 0.02});
    const std::string file = directory.write("lossy.pcap", pcapFile(packets(segments)));
    const Lines expected = whole(file, ""), found = follow(file, {}, 1).lines;
    EXPECT_GE(found.size(), expected.size() * 9 / 10);
    for (int i = 0; i < 10; ++i) EXPECT_THAT(expected, testing::Contains(found[found.size() - 1 - static_cast<std::size_t>(i)])) << "whatever was lost before";
}

TEST_F(Live, LetsGoOfALongBody)
{
    using enum TCPSegment::Direction;
    TCPConversation connection({.server = endpoint("192.0.2.2", 80), .interval = 1'000, .segmentsPerAcknowledgment = 2});
    connection.open();
    connection.send(clientToServer, Data::fromText("GET /large HTTP/1.1\r\nHost: h\r\n\r\n"));
    connection.send(serverToClient, Data::fromText("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"));
    const std::string chunk = fmt::format("{:x}\r\n{}\r\n", 100'000, std::string(100'000, 'x'));
    for (int i = 0; i < 80; ++i) connection.send(serverToClient, Data::fromText(chunk));
    connection.send(serverToClient, Data::fromText("0\r\n\r\n"));
    const std::string file = directory.write("large.pcap", pcapFile(packets(connection.segments)));
    const Followed followed = follow(file, {.mostHeldOfOne = 1 << 20}, 8);
    EXPECT_THAT(followed.lines, testing::ElementsAre(testing::HasSubstr("\"8000000 bytes\"")));
    EXPECT_LT(followed.mostHeld, 3 << 19);
    EXPECT_EQ(followed.openAtTheEnd, 0) << "the capture ended, and with it the connection";
}

}  // namespace
}  // namespace sealscope
