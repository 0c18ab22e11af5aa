// SPDX-License-Identifier: Apache-2.0
#include "platform/OutputFile.h"

#include "harness/Hex.h"
#include "harness/TempDirectory.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>

namespace sealscope {
namespace {

namespace fs = std::filesystem;
using Kind = OutputFile::Kind;
using Problem = FileError::Problem;

TEST(OutputFile, WritesPiecesOfEverySizeInOrder)
{
    const TempDirectory directory;
    const Data all = patternBytes(3'000'000);
    for (const std::int64_t longest : {1'000, 100'000, 262'144, 1'000'000}) {
        const std::string path = directory.file("pieces");
        auto file = OutputFile::create(path, ExistingFile::isReplaced, Kind::regular);
        ASSERT_TRUE(file) << file.error().text();
        std::mt19937_64 random(static_cast<std::uint64_t>(longest));
        for (std::int64_t at = 0; at < all.size();) {
            const std::int64_t count =
                std::min<std::int64_t>(static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(longest + 1)), all.size() - at);
            file->write(all.view().sub(at, count));
            at += count;
        }
        ASSERT_TRUE(file->finish());
        EXPECT_TRUE(readFile(path) == all) << longest;
    }
}

TEST(OutputFile, SaysWhyItCannotBeBegun)
{
    const TempDirectory directory;
    const std::string there = directory.write("there", "text"), folder = directory.file("folder"), link = directory.file("link");
    fs::create_directory(folder);
    fs::create_symlink("nowhere", link);
    struct Case {
        std::string path;
        FileError error;
        const char* text;
    };
    const Case cases[] = {
        {folder, {.problem = Problem::isDirectory}, "is a directory"},
        {link, {.problem = Problem::isDanglingLink}, "is a link to nothing"},
        {there, {.problem = Problem::existsAlready}, "exists already"},
        {"/dev/null", {.problem = Problem::isNoRegularFile}, "is no regular file"},
        {directory.file("no/such/folder"), FileError::ofSystem(ENOENT), "No such file or directory"},
    };
    for (const auto& [path, error, text] : cases) {
        const auto file = OutputFile::create(path, ExistingFile::stays, Kind::regular);
        ASSERT_FALSE(file) << path;
        EXPECT_EQ(file.error(), error) << path;
        EXPECT_EQ(file.error().text(), text);
        EXPECT_EQ((FileProblem{path, file.error()}.text()), path + ": " + text);
    }
    if (!fs::exists("/dev/full")) return;
    auto full = OutputFile::create("/dev/full", ExistingFile::stays, Kind::anything);
    ASSERT_TRUE(full);
    full->write(DataView(std::string_view("text")));
    const auto finished = full->finish();
    ASSERT_FALSE(finished);
    EXPECT_EQ(finished.error(), FileError::ofSystem(ENOSPC));
}

}  // namespace
}  // namespace sealscope
