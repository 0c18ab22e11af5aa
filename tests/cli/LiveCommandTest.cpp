// SPDX-License-Identifier: Apache-2.0
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace sealscope::cli {

namespace {

/// A TCP listener on the loopback interface, to which a thread sends an alert record over and over.
class Talker {
public:
    Talker()
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, 100);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::jthread([this, address](std::stop_token stop) {
            while (!stop.stop_requested()) {
                const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                    static constexpr unsigned char alert[] = {0x15, 3, 3, 0, 2, 2, 40};
                    [[maybe_unused]] const ssize_t sent = ::write(client, alert, sizeof alert);
                    close(accept(listener_, nullptr, nullptr));
                }
                close(client);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    }
    ~Talker()
    {
        thread_.request_stop();
        thread_.join();
        close(listener_);
    }
    std::uint16_t port() const { return port_; }

private:
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::jthread thread_;
};

}  // namespace

TEST(LiveCommand, PrintsRowsOfAnInterfaceAndKeepsThePackets)
{
    const TempDirectory directory;
    const Talker talker;
    const std::string file = directory.file("kept.pcap");
    const std::string filter = "tcp port " + std::to_string(talker.port());
    const ProgramResult result =
        sealscope({"live", "-i", "lo", "-f", filter, "-n", "40", "--json", "--write", file}, {.timeLimit = std::chrono::seconds(30)});
    if (result.errors.find("no permission") != std::string::npos) GTEST_SKIP() << "may not capture here";
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "sealscope: 40 packets captured\n");
    const auto rows = jsonLines(result.output);
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0]["info"], "TLS 1.2: Alert (Fatal, 40)");
    EXPECT_EQ(rows[0]["destination"], "127.0.0.1:" + std::to_string(talker.port()));
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(sealscope({"live", "-i", "lo", "-n", "1", "--write", file}).errors,
              "sealscope: " + file + ": exists already; --force replaces it\n");
    // What was kept gives the same rows again, but for times that the file's resolution cuts.
    const auto kept = jsonLines(sealscope({"packets", "--json", file}).output);
    ASSERT_EQ(kept.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(kept[i]["number"], rows[i]["number"]);
        EXPECT_NEAR(kept[i]["time"].get<double>(), rows[i]["time"].get<double>(), 1e-5);
    }
}

TEST(LiveCommand, EndsCleanlyWhenItIsAskedTo)
{
    const TempDirectory directory;
    const Talker talker;
    const std::string file = directory.file("kept.pcap");
    const std::string command =
        std::string(SEALSCOPE_PROGRAM) + " live -i lo -f 'tcp port " + std::to_string(talker.port()) + "' --json -q --write " + file;
    const ProgramResult result =
        runProgram({"sh", "-c", command + " & running=$!; sleep 2; kill $running; wait $running"}, {.timeLimit = std::chrono::seconds(30)});
    if (result.errors.find("no permission") != std::string::npos) GTEST_SKIP() << "may not capture here";
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_FALSE(jsonLines(result.output).empty());
    EXPECT_EQ(jsonLines(sealscope({"packets", "--json", file}).output).size(), jsonLines(result.output).size());
}

// curl asks a server of OpenSSL's over and over; rows come while it does, opened with secrets that did not exist when it began.
TEST(LiveCommand, FollowsRequestsAsTheyHappen)
{
    const TempDirectory directory;
    const std::string port = std::to_string(20'000 + getpid() % 20'000);
    std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));  // privileges are given up, and with them what is only root's
    for (int i = 1; i <= 6; ++i) directory.write("page" + std::to_string(i) + ".html", "<p>A page.</p>\n");
    const std::string script = "cd " + directory.path().string() + " && command -v curl openssl >/dev/null || exit 77; umask 022; touch keys\n" +
        "openssl req -x509 -nodes -batch -newkey ec -pkeyopt ec_paramgen_curve:P-256 -subj /CN=h -keyout key -out cert 2>/dev/null\n"
        "openssl s_server -quiet -WWW -accept 127.0.0.1:" + port + " -key key -cert cert & server=$!\n" +
        SEALSCOPE_PROGRAM " live -q -i lo -f 'tcp port " + port + "' --exchanges --json -k keys > rows & live=$!\n"
        "for i in 1 2 3 4 5 6; do sleep 1; SSLKEYLOGFILE=keys curl -sk https://127.0.0.1:" + port + "/page$i.html >/dev/null; done; sleep 1\n"
        "kill $live; wait $live; status=$?; kill $server; exit $status";
    const ProgramResult result = runProgram({"sh", "-c", script}, {.timeLimit = std::chrono::seconds(60)});
    if (result.errors.find("no permission") != std::string::npos || result.status == 77) GTEST_SKIP() << "may not capture here, or nobody asks";
    ASSERT_EQ(result.status, 0) << result.errors;
    const auto rows = jsonLines(std::string(readFile(directory.file("rows")).view().text()));
    ASSERT_GE(rows.size(), 4U) << "the first ones may have been asked before anybody listened";
    std::set<std::string> seen;
    for (const auto& row : rows) {
        EXPECT_EQ(row["reply"]["status"], 200);
        EXPECT_EQ(row["reply"]["bodyBytes"], 15);
        EXPECT_EQ(row["request"]["isDecrypted"], true);
        seen.insert(row["request"]["url"].get<std::string>());
    }
    EXPECT_EQ(seen.size(), rows.size()) << "each once";
    EXPECT_TRUE(seen.contains("https://127.0.0.1:" + port + "/page6.html"));
}

TEST(LiveCommand, SaysWhatItCannotCapture)
{
    const ProgramResult unnamed = sealscope({"live"});
    EXPECT_EQ(unnamed.status, 2);
    EXPECT_THAT(unnamed.errors, testing::StartsWith("sealscope: 'live' wants --interface NAME; this machine has "));
    const ProgramResult missing = sealscope({"live", "-i", "nosuch0"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.errors, testing::StartsWith("sealscope: nosuch0: "));
}

}  // namespace sealscope::cli
