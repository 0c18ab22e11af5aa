// SPDX-License-Identifier: Apache-2.0
#include "app/export/StreamDecryptor.h"
#include "app/plugins/PlugInLoader.h"
#include "app/records/StreamRecords.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <gtest/gtest.h>
#include <thread>

namespace sealscope {

namespace {

/// Two connections of one capture, with a key log for each.
class Application : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const TempDirectory settings;
        for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME"}) setenv(variable, settings.path().c_str(), 1);
        for (const char* variable : {"SSLKEYLOGFILE", "SEALSCOPE_PLUGIN_PATH"}) unsetenv(variable);
        PlugInLoader::load({});
    }

    Application()
    {
        const TLSSession first = runTLS({}, {clientSends("one"), serverSends("two")});
        const TLSSession second = runTLS({.version = 0x0303, .seed = 2}, {clientSends("three"), serverSends("four")});
        auto segments = tcpSegments(first.flights);
        for (const auto& segment : tcpSegments(second.flights, {.client = endpoint("192.0.2.9", 50'001)})) segments.push_back(segment);
        capture = directory.write("two.pcap", pcapFile(packets(segments)));
        firstKeys = directory.write("first.txt", first.keyLog);
        secondKeys = directory.write("second.txt", second.keyLog);
    }

    std::unique_ptr<Session> open(std::vector<std::string> keyLogs) const
    {
        auto session = Session::open({.files = {capture}, .keyLogs = std::move(keyLogs)});
        if (!session) throw std::runtime_error(session.error().text());
        return std::move(*session);
    }

    /// The verdicts of all streams, as programs read them.
    static std::string verdicts(const Session& session)
    {
        const StreamVerdicts verdicts(session);
        std::string text;
        for (std::int64_t number = 0; number < session.streamCount(); ++number) {
            const auto verdict = verdicts.verdict(session.stream(number), ReportDepth::opened);
            text += verdict ? verdictName(verdict->outcome) : "none";
            text += ' ';
        }
        return text;
    }

    const TempDirectory directory;
    std::string capture, firstKeys, secondKeys;
};

TEST_F(Application, AnswersAsTheCommandLineDoes)
{
    const auto session = open({firstKeys});
    const StreamVerdicts verdicts(*session);
    std::string streams, conversations;
    for (std::int64_t number = 0; number < session->streamCount(); ++number) {
        const TCPStream stream = session->stream(number);
        appendRecord(streams, streamRow(*session, verdicts, number));
        const VELStreamInterpreting* interpreter = session->plugIns().interpreter(stream);
        ASSERT_NE(interpreter, nullptr);
        StreamPart whole = partOf(interpreter->interpret(stream, session->plugIns().context()));
        appendRecord(conversations, number, [&](const StreamPartVisitor& visit) { visit(whole); }, {});
    }
    EXPECT_EQ(streams, cli::sealscope({"streams", "--json", "-k", firstKeys, capture}).output);
    EXPECT_EQ(conversations, cli::sealscope({"follow", "--json", "-k", firstKeys, capture}).output);

    const StreamDecryptor decryptor(*session, {.folder = directory.path().string()}, {});
    EXPECT_EQ(readFile(decryptor.open(0).client.file).view().text(), "one");
    EXPECT_EQ(decryptor.open(1).client.file, "") << "there is no secret for the second";
}

TEST_F(Application, KeepsTheSecretsOfSessionsApart)
{
    struct Case {
        std::vector<std::string> keyLogs;
        std::string expected;
    };
    const Case cases[] = {
        {{firstKeys}, "decrypted noKeyMaterial "},
        {{secondKeys}, "noKeyMaterial decrypted "},
        {{firstKeys, secondKeys}, "decrypted decrypted "},
        {{}, "noKeyMaterial noKeyMaterial "},
    };
    std::vector<std::thread> threads;
    std::vector<std::string> found(std::size(cases));
    for (std::size_t i = 0; i < std::size(cases); ++i)
        threads.emplace_back([&, i] {
            const auto session = open(cases[i].keyLogs);
            for (int round = 0; round < 20; ++round) {
                const std::string now = verdicts(*session);
                if (found[i].empty() || now != found[i]) found[i] += now;
            }
        });
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(found[i], cases[i].expected);
}

}  // namespace

}  // namespace sealscope
