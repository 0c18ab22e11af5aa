// SPDX-License-Identifier: Apache-2.0
// What a core of the program would hold is what it has in memory that may be dumped: no secret is found there, of whatever origin,
// while it works with them.
#include "harness/TempDirectory.h"
#include "platform/FileDescriptor.h"
#include "tests/cli/Program.h"
#include "tests/support/Sanitizer.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <signal.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace sealscope::cli {

namespace {

/// The secrets of a key log, as text and as bytes.
std::set<std::string> secretsIn(const std::string& keyLog)
{
    std::set<std::string> secrets;
    std::istringstream lines(keyLog);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('#')) continue;
        const std::string secret = line.substr(line.rfind(' ') + 1);
        secrets.insert(secret);
        std::string bytes;
        for (std::size_t i = 0; i + 1 < secret.size(); i += 2) bytes += static_cast<char>(std::stoi(secret.substr(i, 2), nullptr, 16));
        secrets.insert(bytes);
    }
    return secrets;
}

/// What a core of a process would hold of its own: pages of writable memory that is not left out.
std::string dumpable(pid_t process)
{
    const std::string folder = "/proc/" + std::to_string(process);
    std::ifstream maps(folder + "/smaps");
    const FileDescriptor pages(open((folder + "/pagemap").c_str(), O_RDONLY)), memory(open((folder + "/mem").c_str(), O_RDONLY));
    const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    std::string all;
    std::uint64_t begin = 0, end = 0, resident = 0;
    bool isWritable = false;
    for (std::string line; std::getline(maps, line);) {
        std::uint64_t from = 0, to = 0;
        char permissions[5];
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, permissions) == 3) {
            begin = from;
            end = to;
            isWritable = permissions[1] == 'w';
        }
        if (std::sscanf(line.c_str(), "Rss: %lu", &resident) == 1) resident = resident * 1'024 / pageSize;
        if (!line.starts_with("VmFlags:") || !isWritable || line.find(" dd") != std::string::npos) continue;
        // Most of a mapping may never have been touched.
        std::vector<std::uint64_t> present(4'096);
        for (std::uint64_t address = begin; address < end && resident > 0; address += present.size() * pageSize) {
            if (pread(pages.number(), present.data(), present.size() * sizeof present[0], static_cast<off_t>(address / pageSize * sizeof present[0])) <= 0)
                return {};
            for (std::size_t i = 0; i < present.size() && address + i * pageSize < end; ++i) {
                if ((present[i] >> 63) == 0) continue;
                --resident;
                all.resize(all.size() + pageSize);
                if (pread(memory.number(), all.data() + all.size() - pageSize, pageSize, static_cast<off_t>(address + i * pageSize)) < 0) return {};
            }
        }
    }
    return all;
}

}  // namespace

TEST(Core, HoldsNoSecret)
{
    if (isSanitized) GTEST_SKIP() << "secrets are in the sanitizer's own memory";
    const TempDirectory directory;
    const std::string pipe = directory.file("pipe");
    const std::string folder = SEALSCOPE_SOURCE_DIR "/tests/captures/";
    for (const char* session : {"openssl-tls13", "openssl-tls12"}) {
        const std::string keyLog = folder + session + "/keylog.txt", capture = folder + session + "/capture.pcap", carrying = directory.file("carrying.pcapng");
        ASSERT_EQ(sealscope({"decrypt", "--inject-secrets", carrying, "--force", "-k", keyLog, capture}).status, 0);
        const auto secrets = secretsIn(std::string(readFile(keyLog).view().text()));
        ASSERT_GT(secrets.size(), 0U);
        const std::vector<std::vector<std::string>> sources{{"-k", keyLog, capture}, {carrying}};
        for (const auto& source : sources) {
            // It stands still as soon as it has written more than a pipe takes.
            std::filesystem::remove(pipe);
            ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
            std::vector<std::string> arguments{SEALSCOPE_PROGRAM, "follow", "--json"};
            arguments.insert(arguments.end(), source.begin(), source.end());
            for (int i = 0; i < 60; ++i) arguments.push_back(source.back());
            const pid_t process = fork();
            if (process == 0) {
                std::vector<char*> pointers;
                for (std::string& argument : arguments) pointers.push_back(argument.data());
                pointers.push_back(nullptr);
                dup2(open(pipe.c_str(), O_WRONLY), STDOUT_FILENO);
                execv(SEALSCOPE_PROGRAM, pointers.data());
                _exit(127);
            }
            const int reader = open(pipe.c_str(), O_RDONLY);
            std::string first(1, '\0');
            EXPECT_EQ(read(reader, first.data(), 1), 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            kill(process, SIGSTOP);
            const std::string core = dumpable(process);
            EXPECT_EQ(waitpid(process, nullptr, WNOHANG), 0) << "it has more to say";
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
            close(reader);
            if (core.empty()) GTEST_SKIP() << "may not look into its own children";
            EXPECT_NE(core.find("capture.pcap") == std::string::npos ? core.find("carrying.pcapng") : 0, std::string::npos) << "its memory was read";
            for (const std::string& secret : secrets) EXPECT_EQ(core.find(secret), std::string::npos) << session << ' ' << secret.size() << " bytes";
        }
    }
}

}  // namespace sealscope::cli
