// SPDX-License-Identifier: Apache-2.0
#include "app/capture/LiveCapture.h"

#include "app/capture/Privileges.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"
#include "tests/capture/ReadCapture.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace sealscope {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using Outcome = LiveCapture::Outcome;

constexpr std::uint16_t port = 41'999;

bool mayCapture()
{
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}

/// Sends datagrams to a port of this machine.
class Sender {
public:
    Sender() : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Sender() { close(descriptor_); }
    void send(DataView bytes, std::uint16_t to = port) const
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(to);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sendto(descriptor_, bytes.data(), static_cast<std::size_t>(bytes.size()), 0, reinterpret_cast<const sockaddr*>(&address),
               sizeof address);
    }

private:
    int descriptor_;
};

LiveOptions loopback(std::string writeTo = "")
{
    return {.interface = "lo", .filter = fmt::format("udp dst port {}", port), .writeTo = std::move(writeTo), .dropsPrivileges = false};
}

TEST(LiveCapture, HandsPacketsOutAsTheyArriveAndKeepsThem)
{
    if (!mayCapture()) GTEST_SKIP() << "needs the right to capture";
    const TempDirectory directory;
    auto opened = LiveCapture::open(loopback(directory.file("kept.pcap")));
    ASSERT_TRUE(opened) << opened.error().text();
    LiveCapture& capture = **opened;
    CapturedPacket packet;
    EXPECT_EQ(capture.next(packet, milliseconds(20)), Outcome::timeout);

    const Sender sender;
    std::vector<CapturePacket> seen;
    for (int i = 1; i <= 5; ++i) {
        const Data bytes = patternBytes(100 + i);
        const auto sent = steady_clock::now();
        sender.send(bytes, port + 1);  // does not pass
        sender.send(bytes);
        ASSERT_EQ(capture.next(packet, milliseconds(2'000)), Outcome::packet);
        EXPECT_LT(steady_clock::now() - sent, milliseconds(100));
        EXPECT_EQ(packet.number, i);
        EXPECT_EQ(packet.frame.sub(14 + 20 + 8, 1'000), bytes.view());
        EXPECT_EQ(packet.originalLength, packet.frame.size());
        EXPECT_LT(std::abs(packet.time.seconds - std::time(nullptr)), 3);
        seen.push_back({packet.time.nanoseconds(), Data(packet.frame), packet.originalLength, packet.linkType});
        // Whoever looks at the file meanwhile sees whole packets.
        EXPECT_EQ(capture.next(packet, milliseconds(0)), Outcome::timeout);
        EXPECT_EQ(readCapture({directory.file("kept.pcap")}).packets.size(), static_cast<std::size_t>(i));
    }
    EXPECT_GE(capture.counts().received, 5);
    EXPECT_EQ(capture.counts().droppedByKernel, 0);
    EXPECT_TRUE(capture.finishWriting());
    const ReadResult kept = readCapture({directory.file("kept.pcap")});
    ASSERT_EQ(kept.packets.size(), seen.size());
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_TRUE(kept.packets[i].isCopyOf(seen[i])) << kept.packets[i];
}

LiveCapture* stoppedBySignal = nullptr;

TEST(LiveCapture, StopsAtOnce)
{
    if (!mayCapture()) GTEST_SKIP() << "needs the right to capture";
    CapturedPacket packet;
    struct Case {
        const char* name;
        std::function<std::jthread(LiveCapture&)> stop;  ///< the thread that does it, if any
    };
    const Case cases[] = {
        {"before the waiting",
         [](LiveCapture& capture) {
             capture.stop();
             return std::jthread();
         }},
        {"from another thread",
         [](LiveCapture& capture) {
             return std::jthread([&capture] {
                 std::this_thread::sleep_for(milliseconds(50));
                 capture.stop();
             });
         }},
        {"from a signal handler",
         [](LiveCapture& capture) {
             stoppedBySignal = &capture;
             std::signal(SIGALRM, [](int) { stoppedBySignal->stop(); });
             ualarm(50'000, 0);
             return std::jthread();
         }},
    };
    for (const auto& [name, stop] : cases) {
        auto capture = LiveCapture::open(loopback());
        ASSERT_TRUE(capture) << capture.error().text();
        Sender().send(patternBytes(10));  // arrived before, and is still handed out
        const auto start = steady_clock::now();
        const std::jthread helper = stop(**capture);
        EXPECT_EQ((*capture)->next(packet, milliseconds(10'000)), Outcome::packet) << name;
        EXPECT_EQ((*capture)->next(packet, milliseconds(10'000)), Outcome::stopped) << name;
        EXPECT_EQ((*capture)->next(packet, milliseconds(10'000)), Outcome::stopped) << name;
        EXPECT_LT(steady_clock::now() - start, milliseconds(2'000)) << name;
    }
    std::signal(SIGALRM, SIG_DFL);

    // A flood that goes on does not keep it from stopping.
    auto capture = LiveCapture::open(loopback());
    ASSERT_TRUE(capture);
    std::jthread flood([](const std::stop_token& token) {
        const Sender sender;
        while (!token.stop_requested()) sender.send(patternBytes(10));
    });
    for (int i = 0; i < 100; ++i) ASSERT_EQ((*capture)->next(packet, milliseconds(2'000)), Outcome::packet);
    (*capture)->stop();
    const auto stopped = steady_clock::now();
    while ((*capture)->next(packet, milliseconds(10'000)) == Outcome::packet) {}
    EXPECT_LT(steady_clock::now() - stopped, milliseconds(5'000));
}

TEST(LiveCapture, TellsWhyItCannotBegin)
{
    if (!mayCapture()) GTEST_SKIP() << "needs the right to capture";
    const TempDirectory directory;
    struct Case {
        const char* name;
        LiveOptions options;
        std::string file;
        const char* reason;
    };
    LiveOptions missing = loopback(), wrongFilter = loopback(), nowhere = loopback(directory.file("no/where"));
    missing.interface = "nowhere0";
    wrongFilter.filter = "tcp port";
    const Case cases[] = {
        {"interface", missing, "nowhere0", "there is no such network interface"},
        {"filter", wrongFilter, "", "syntax error"},
        {"file", nowhere, directory.file("no/where"), "No such file or directory"},
    };
    for (const auto& [name, options, file, reason] : cases) {
        const auto capture = LiveCapture::open(options);
        ASSERT_FALSE(capture) << name;
        EXPECT_EQ(capture.error().file, file) << name;
        EXPECT_THAT(capture.error().reason(), HasSubstr(reason)) << name;
        EXPECT_TRUE(capture.error().couldNotOpen) << name;
    }
}

TEST(LiveCapture, TellsOfAFullDisk)
{
    if (!mayCapture() || !std::filesystem::exists("/dev/full")) GTEST_SKIP() << "needs the right to capture, and /dev/full";
    auto capture = LiveCapture::open(loopback("/dev/full"));
    ASSERT_TRUE(capture) << capture.error().text();
    CapturedPacket packet;
    Sender().send(patternBytes(10));
    EXPECT_EQ((*capture)->next(packet, milliseconds(2'000)), Outcome::packet);
    EXPECT_EQ((*capture)->next(packet, milliseconds(0)), Outcome::timeout);
    const auto written = (*capture)->finishWriting();
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error().text(), "/dev/full: could not be written to its end: No space left on device");
}

/// What a child process finds true; it may give up rights for good.
bool holdsInChild(const std::function<bool()>& test)
{
    const pid_t child = fork();
    if (child == 0) _exit(test() ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Privileges, AreGivenUpForGood)
{
    if (geteuid() != 0) GTEST_SKIP() << "has no privileges to give up";
    EXPECT_TRUE(holdsInChild([] {
        setenv("SUDO_UID", "12345", 1);
        setenv("SUDO_GID", "23456", 1);
        return dropPrivileges() && getuid() == 12'345 && geteuid() == 12'345 && getgid() == 23'456 && setuid(0) != 0 && !mayCapture() &&
               open("/etc/shadow", O_RDONLY) < 0;
    })) << "behind sudo";
    EXPECT_TRUE(holdsInChild([] {
        unsetenv("SUDO_UID");
        return isRootAlone() && dropPrivileges() && getuid() == 65'534 && setuid(0) != 0 && !mayCapture() &&
               open("/etc/shadow", O_RDONLY) < 0;
    })) << "as root";
    EXPECT_TRUE(holdsInChild([] {
        unsetenv("SUDO_UID");
        return setresuid(12'345, 0, 0) == 0 && dropPrivileges() && geteuid() == 12'345 && setuid(0) != 0;
    })) << "behind a set-uid program";
}

}  // namespace
}  // namespace sealscope
