// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLogStore.h"

#include "harness/Hex.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/UserDefaults.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <thread>

namespace sealscope {
namespace {

const Data clientRandom = hex("aabb");

class TLSKeyLogStoreTest : public testing::Test {
protected:
    ~TLSKeyLogStoreTest() override
    {
        UserDefaults::standard().remove(KeylogUserFile::pathDefaultsKey());
        unsetenv("SSLKEYLOGFILE");
        std::filesystem::remove(KeylogLocations::liveKeylog());
    }

    /// Writes a key log with one secret.
    std::string write(std::string_view name, std::string_view secret)
    {
        return directory.write(name, std::string_view(fmt::format("L aabb {}\n", secret)));
    }
    std::optional<Data> secret() { return store.secret("L", clientRandom); }

    const WithKeyLog noOthers{""};
    TempDirectory directory;
    TLSKeyLogStore store;
};

TEST_F(TLSKeyLogStoreTest, FindsNothingWithoutKeyLogs)
{
    EXPECT_EQ(secret(), std::nullopt);
    EXPECT_EQ(secret(), std::nullopt);
    EXPECT_TRUE(store.current().secrets.isEmpty());
}

TEST_F(TLSKeyLogStoreTest, FindsWhatIsAppended)
{
    const std::string file = write("log", "01");
    setenv("SSLKEYLOGFILE", file.c_str(), 1);
    EXPECT_EQ(secret(), hex("01"));
    EXPECT_EQ(store.secret("M", clientRandom), std::nullopt);
    const auto before = secret();
    directory.write("log", std::string_view("L aabb 01\nM aabb 02\nL aabb 03\n"));
    EXPECT_EQ(store.secret("M", clientRandom), hex("02"));
    EXPECT_EQ(secret(), hex("03"));
    EXPECT_EQ(before, hex("01")) << "what was handed out outlives the reload";
    std::filesystem::remove(file);
    EXPECT_EQ(secret(), std::nullopt) << "a file that is gone takes its secrets with it";
}

TEST_F(TLSKeyLogStoreTest, LetsLaterSourcesWin)
{
    const std::string user = write("user", "04");
    const std::string environment = write("environment", "03");
    std::filesystem::create_directories(KeylogLocations::liveKeylog().parent_path());

    writeFile(KeylogLocations::liveKeylog(), DataView(std::string_view("L aabb 02\n")));
    EXPECT_EQ(secret(), hex("02")) << "the managed key log";
    setenv("SSLKEYLOGFILE", environment.c_str(), 1);
    EXPECT_EQ(secret(), hex("03")) << "the environment's over that";
    KeylogUserFile::remember(user, UserDefaults::standard());
    EXPECT_EQ(secret(), hex("04")) << "the user's file in its place";
    write("environment", "05");
    EXPECT_EQ(secret(), hex("04"));
    KeylogUserFile::remember("", UserDefaults::standard());
    EXPECT_EQ(secret(), hex("05")) << "without a choice the environment counts again";
}

TEST_F(TLSKeyLogStoreTest, KeepsTheSecretsOfSessionsApart)
{
    const std::string file = write("log", "03");
    TLSKeyLogStore embedded(std::make_shared<const KeyLogSources>("L aabb 01\n", std::vector<std::string>{}));
    TLSKeyLogStore named(std::make_shared<const KeyLogSources>("L aabb 01\nM aabb 02\n", std::vector{file}));
    EXPECT_EQ(embedded.secret("L", clientRandom), hex("01"));
    EXPECT_EQ(embedded.secret("M", clientRandom), std::nullopt);
    EXPECT_EQ(named.secret("L", clientRandom), hex("03")) << "a file over the capture's own";
    EXPECT_EQ(named.secret("M", clientRandom), hex("02"));
    EXPECT_EQ(secret(), std::nullopt) << "the process has neither";

    directory.write("log", std::string_view("L aabb 04\n"));
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (named.secret("L", clientRandom) != hex("04") && std::chrono::steady_clock::now() < latest)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(named.secret("L", clientRandom), hex("04")) << "what is written is seen within a second";
}

TEST_F(TLSKeyLogStoreTest, ServesManyThreadsWhileTheSourceChanges)
{
    const std::string file = write("log", "00");
    setenv("SSLKEYLOGFILE", file.c_str(), 1);
    std::atomic<bool> isDone = false;
    std::atomic<int> surprises = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!isDone) {
                // Each file is put in place whole, so some secret is always there.
                const auto found = secret();
                if (!found || found->size() != 1) ++surprises;
            }
        });
    for (int round = 1; round <= 100; ++round) {
        std::filesystem::rename(write("next", fmt::format("{:02x}", round)), file);
        EXPECT_EQ(secret(), (Data{static_cast<std::uint8_t>(round)}));
    }
    isDone = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(surprises, 0);
    EXPECT_EQ(secret(), hex("64"));
}

}  // namespace
}  // namespace sealscope
