// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/TCPConversation.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// Runs a tool that has to succeed.
std::string must(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {})
{
    const ProgramResult result = runProgram(arguments, {.environment = environment, .timeLimit = std::chrono::minutes(4)});
    if (result.status != 0) throw std::runtime_error(arguments[0] + ": " + result.output + result.errors);
    return result.output;
}

bool isELF(const fs::path& path)
{
    char magic[4] = {};
    std::ifstream(path, std::ios::binary).read(magic, sizeof magic);
    return std::string_view(magic, sizeof magic) == "\x7f" "ELF";
}

/// The project installed, moved elsewhere, and the example built against what is there: once for all tests.
class ExamplePlugInTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<TempDirectory>();
        for (const char* component : {"runtime", "libraries", "development"})
            must({SEALSCOPE_CMAKE, "--install", SEALSCOPE_BINARY_DIR, "--prefix", folder->file("first"), "--component", component});
        fs::rename(folder->path() / "first", folder->path() / "moved");
        must({SEALSCOPE_CMAKE, "-S", SEALSCOPE_SOURCE_DIR "/examples/plugin", "-B", folder->file("build"), "-G", "Ninja",
              "-DCMAKE_PREFIX_PATH=" + folder->file("moved"), "-DCMAKE_CXX_COMPILER=" SEALSCOPE_CXX,
              "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror "
              "-Wno-missing-field-initializers -Wno-deprecated-declarations"});
        must({SEALSCOPE_CMAKE, "--build", folder->file("build")});
    }
    static void TearDownTestSuite() { folder.reset(); }

    static ProgramResult run(std::vector<std::string> arguments, const std::vector<std::string>& environment = {})
    {
        arguments.insert(arguments.begin(), folder->file("moved/bin/sealscope"));
        return runProgram(arguments, {.environment = testEnvironment(environment)});
    }
    static std::vector<std::string> testEnvironment(std::vector<std::string> more)
    {
        more.insert(more.begin(), {"XDG_CONFIG_HOME=" + folder->file("config"), "TZ=UTC", "LC_ALL=C.UTF-8", "SEALSCOPE_PLUGIN_PATH"});
        return more;
    }

    static inline std::unique_ptr<TempDirectory> folder;
};

}  // namespace

TEST_F(ExamplePlugInTest, IsFoundAndAskedByTheInstalledProgram)
{
    const auto flight = [](TCPSegment::Direction direction, std::string_view text) {
        return TLSFlight{.direction = direction, .wire = Data::fromText(text), .plaintext = {}};
    };
    const std::string capture =
        folder->write("chat.pcap", pcapFile(packets(tcpSegments({
                                       flight(TCPSegment::Direction::clientToServer, "NICK ann\r\nUSER ann 0 * :Ann\r\n"),
                                       flight(TCPSegment::Direction::serverToClient, ":irc.example 001 ann :Welcome\r\nPING :42\r\n"),
                                       flight(TCPSegment::Direction::clientToServer, "PONG :42\r\n"),
                                   }))));

    const std::string build = folder->file("build");
    const auto plugIns = jsonLines(run({"plugins", "--json", "--plugin-path", build}).output);
    ASSERT_EQ(plugIns.size(), 4U);
    EXPECT_EQ(plugIns[0].at("title"), "IRC");
    EXPECT_EQ(plugIns[0].at("version"), "1.0 (1)");
    EXPECT_EQ(plugIns[1].at("title"), "HTTP");
    EXPECT_EQ(plugIns[2].at("title"), "Sealscope");
    EXPECT_EQ(plugIns[2].at("bundle"), folder->file("moved/" SEALSCOPE_PLUGIN_DIR "/Sealscope.bundle"));

    std::vector<std::string> infos;
    for (const auto& row : jsonLines(run({"packets", "--json", "--plugin-path", build, capture}).output)) {
        infos.push_back(row.at("info"));
        EXPECT_EQ("IRC: " + row.at("ircCommand").get<std::string>(), infos.back().substr(0, infos.back().rfind(' ')));
    }
    EXPECT_THAT(infos, testing::ElementsAre("IRC: NICK ann", "IRC: 001 ann", "IRC: PONG :42"));

    const auto streams = jsonLines(run({"follow", "--json", "--plugin-path", build, capture}).output);
    ASSERT_EQ(streams.size(), 1U);
    std::vector<std::string> summaries;
    for (const auto& message : streams[0].at("messages")) summaries.push_back(message.at("summary"));
    EXPECT_THAT(summaries, testing::ElementsAre("NICK ann", "USER ann", "001 ann", "PING :42", "PONG :42"));
    EXPECT_EQ(streams[0].at("pairings"),
              nlohmann::json::parse(R"([{"requestIndex": 3, "replyIndex": 4, "summary": "PING :42", "status": "matched"}])"));

    EXPECT_THAT(run({"packets", "--plugin-path", build, capture}, {"LC_ALL=de_DE.UTF-8"}).output, HasSubstr("IRC-Befehl"));
    EXPECT_EQ(run({"packets", capture}).output, "") << "without it nobody knows the protocol";
}

TEST_F(ExamplePlugInTest, ExportsItsEntryAlone)
{
    const std::string symbols = must({"nm", "-D", "--defined-only", folder->file("build/IRC.bundle/IRC.so")});
    EXPECT_THAT(symbols, testing::MatchesRegex("[0-9a-f]+ [A-Z] velBundleEntry\n"));
}

TEST_F(ExamplePlugInTest, SearchesNoFolderButItsOwnForLibraries)
{
    // In the build tree, in the installation, and in what is built against it. The linker takes an empty entry for the current
    // folder, where a library may lie beside a capture.
    std::vector<std::string> readelf{"readelf", "-dW"};
    for (const fs::path& place : {fs::path(SEALSCOPE_BINARY_DIR "/bin"), fs::path(SEALSCOPE_BINARY_DIR "/" SEALSCOPE_LIBDIR), folder->path()})
        for (const auto& entry : fs::recursive_directory_iterator(place))
            if (entry.is_regular_file() && !entry.is_symlink() && isELF(entry.path()))
                readelf.push_back(entry.path());
    std::istringstream lines(must(readelf));
    std::string file;
    std::size_t files = 0;
    std::set<std::string> programs;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("File: ")) file = line.substr(6), ++files;
        if (line.contains("(RPATH)") || line.contains("(RUNPATH)")) {
            programs.insert(fs::path(file).filename());
            const std::string entries = line.substr(line.find('[') + 1, line.rfind(']') - line.find('[') - 1) + ":";
            for (std::size_t start = 0; start < entries.size(); start = entries.find(':', start) + 1)
                EXPECT_TRUE(entries.substr(start).starts_with("$ORIGIN")) << file << ": " << line;
        }
    }
    EXPECT_EQ(files, readelf.size() - 2);
    EXPECT_TRUE(programs.contains("sealscope")) << "finds its libraries by a run path";
}

TEST_F(ExamplePlugInTest, FindsEveryHeaderThroughPkgConfig)
{
    const fs::path include = folder->path() / "moved/include/sealscope";
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(include))
        if (entry.path().extension() == ".h") lines.push_back("#include \"" + fs::relative(entry.path(), include).string() + "\"");
    EXPECT_GT(lines.size(), 40U);
    std::ranges::sort(lines);
    const std::string source = folder->write("all.cpp", fmt::format("{}\n", fmt::join(lines, "\n")));

    const std::string packages = folder->file("moved/" SEALSCOPE_LIBDIR "/pkgconfig");
    const std::string flags = must({"pkg-config", "--cflags", "sealscope-host"}, {"PKG_CONFIG_PATH=" + packages});
    must({"sh", "-c", fmt::format("{} -fsyntax-only -Wall -Wextra -Werror {} {}", SEALSCOPE_CXX, source, flags)});
}

}  // namespace sealscope::cli
