// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/CurlExporter.h"

#include "harness/RunProgram.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

std::string commands(const std::string& said)
{
    std::string written;
    const StreamExporter::Write write = [&](DataView bytes) {
        written += bytes.text();
        return true;
    };
    const TCPStream stream = conversation({{'>', said}});
    const auto exporter = CurlExporter::format.create();
    exporter->begin(write);
    exporter->add({stream, HTTP1Interpreter::interpret(stream, {})}, write);
    exporter->end(write);
    return written;
}

TEST(CurlExporter, WritesRequestsAsCommands)
{
    struct Case {
        const char* name;
        std::string said;
        std::string expected;
    };
    const Case cases[] = {
        {"fields that the program sees to by itself",
         "GET /a?b=1 HTTP/1.1\r\nHost: example.org\r\nUser-Agent: x\r\nAccept-Encoding: gzip\r\nConnection: close\r\nX-Empty:\r\n\r\n",
         "curl 'http://example.org/a?b=1' \\\n  --header 'User-Agent: x' \\\n  --header 'X-Empty;' \\\n  --compressed\n"},
        {"a form",
         "POST /form HTTP/1.1\r\nHost: h\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: 9\r\n\r\nk=it's ok",
         "curl 'http://h/form' \\\n  --header 'Content-Type: application/x-www-form-urlencoded' \\\n  --data-raw $'k=it\\x27s ok'\n"},
        {"a method of its own, and a body of no type", "PUT /[1-3] HTTP/1.1\r\nHost: h\r\nContent-Length: 2\r\n\r\n@x",
         "curl 'http://h/[1-3]' \\\n  --globoff \\\n  --request 'PUT' \\\n  --header 'Content-Type:' \\\n  --data-raw '@x'\n"},
        {"a body that no argument can hold",
         std::string("POST / HTTP/1.1\r\nHost: h\r\nContent-Type: a/b\r\nContent-Length: 3\r\n\r\na\0b", 69),
         "# body.bin: the body of 3 bytes\ncurl 'http://h/' \\\n  --header 'Content-Type: a/b' \\\n  --data-binary @body.bin\n"},
        {"other schemes and tunnels", "GET file:///etc/passwd HTTP/1.1\r\nHost: h\r\n\r\nCONNECT h:443 HTTP/1.1\r\nHost: h:443\r\n\r\n",
         ""},
    };
    for (const auto& [name, said, expected] : cases) EXPECT_EQ(commands(said), expected) << name;
}

TEST(CurlExporter, RunsNothingThatAPeerSent)
{
    const std::string hostile = "'; echo run; $(echo run) `echo run` \"!!\" \\' \xe2\x80\xae\x9b \\x41";
    const std::string command = commands("GET /'$(echo${IFS}run)`echo` HTTP/1.1\r\nHost: h\r\nX-Hostile: " + hostile + "\r\n\r\n");
    for (const char letter : command) EXPECT_TRUE(letter == '\n' || (letter >= 0x20 && letter < 0x7F)) << command;
    // The shell hands over what was meant, letter by letter.
    const ProgramResult shell = runProgram({"bash", "-c", "curl() { printf '%s\\n' \"$@\"; }\n" + command});
    EXPECT_EQ(shell.errors, "");
    const std::string field = "X-Hostile: " + hostile + '\n';
    ASSERT_TRUE(shell.output.starts_with("http://h/'$(echo${IFS}run)`echo`\n--globoff\n--header\nX-Hostile: '; echo run;")) << shell.output;
    EXPECT_TRUE(shell.output.contains(field.substr(0, field.find('\xe2')))) << shell.output;
}

}  // namespace
}  // namespace sealscope
