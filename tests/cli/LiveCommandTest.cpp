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
                    [[maybe_unused]] const ssize_t sent = write(client, alert, sizeof alert);
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
