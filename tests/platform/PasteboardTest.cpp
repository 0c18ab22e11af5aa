// SPDX-License-Identifier: Apache-2.0
#include "platform/Pasteboard.h"

#include "harness/TempDirectory.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

/// A folder of programs in the place of those that own a session's clipboard; each notes how it was called, and with what.
class PasteboardTest : public testing::Test {
protected:
    void SetUp() override
    {
        path = std::getenv("PATH");
        setenv("PATH", folder.path().c_str(), 1);
        for (const char* session : {"DISPLAY", "WAYLAND_DISPLAY"}) unsetenv(session);
    }
    void TearDown() override { setenv("PATH", path.c_str(), 1); }

    void addProgram(const std::string& name, int status)
    {
        const std::string script = "#!/bin/sh\n{ echo \"" + name + " $*\"; /bin/cat; echo; } >> " + folder.file("calls") + "\nexit " +
                                   std::to_string(status) + "\n";
        fs::permissions(folder.write(name, script), fs::perms::owner_all);
    }
    std::string calls() const
    {
        return fs::exists(folder.path() / "calls") ? std::string(readFile(folder.path() / "calls").view().text()) : std::string();
    }

    TempDirectory folder;
    std::string path;
};

}  // namespace

TEST_F(PasteboardTest, HandsTextToTheSessionsClipboard)
{
    addProgram("wl-copy", 0);
    addProgram("xclip", 1);
    addProgram("xsel", 0);
    Pasteboard& pasteboard = Pasteboard::general();
    EXPECT_TRUE(pasteboard.setString("no session")) << "then it is kept here alone";
    EXPECT_EQ(calls(), "");

    setenv("DISPLAY", ":0", 1);
    EXPECT_TRUE(pasteboard.setString("two\nlines"));
    EXPECT_EQ(calls(), "xclip -selection clipboard -in\ntwo\nlines\nxsel --clipboard --input\ntwo\nlines\n")
        << "the next program takes over";

    fs::remove(folder.path() / "calls");
    setenv("WAYLAND_DISPLAY", "wayland-0", 1);
    pasteboard.clearContents();
    EXPECT_TRUE(pasteboard.setString("text"));
    EXPECT_EQ(calls(), "wl-copy --type text/plain\n\nwl-copy --type text/plain\ntext\n");
    EXPECT_EQ(pasteboard.string(), "text");
}

TEST_F(PasteboardTest, KeepsTheTextWhereTheSessionDoesNotTakeIt)
{
    setenv("DISPLAY", ":0", 1);
    EXPECT_FALSE(Pasteboard::general().setString("nobody is there")) << "no program";
    EXPECT_EQ(Pasteboard::general().string(), "nobody is there");

    // Longer than a pipe holds, for a program that ends without reading it.
    fs::permissions(folder.write("xsel", "#!/bin/sh\nexit 0\n"), fs::perms::owner_all);
    EXPECT_TRUE(Pasteboard::general().setString(std::string(1'000'000, 'x')));
}

}  // namespace sealscope
