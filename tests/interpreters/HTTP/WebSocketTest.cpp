// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/WebSocketInterpreter.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace sealscope {
namespace {

/// A frame (RFC 6455 §5.2); a client's is masked.
std::string frame(char who, int first, std::string_view payload)
{
    std::string bytes(1, static_cast<char>(first));
    const int mask = who == '>' ? 0x80 : 0;
    if (payload.size() < 126) {
        bytes += static_cast<char>(mask | static_cast<int>(payload.size()));
    } else {
        bytes += static_cast<char>(mask | 126);
        bytes += static_cast<char>(payload.size() >> 8);
        bytes += static_cast<char>(payload.size());
    }
    const std::string_view key("\x11\x22\x33\x44", 4);
    if (mask) bytes += key;
    for (std::size_t i = 0; i < payload.size(); ++i) bytes += mask ? static_cast<char>(payload[i] ^ key[i & 3]) : payload[i];
    return bytes;
}

std::string handshake(const char* extension = "")
{
    return std::string("HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n") + extension + "\r\n";
}
constexpr const char* request = "GET /chat HTTP/1.1\r\nHost: h\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n";

/// The transcript behind the handshake, without the pairing.
std::string readWebSocket(const std::vector<Said>& said)
{
    std::string text = transcript(HTTP1Interpreter::interpret(conversation(said), {}));
    text.erase(0, text.find("reply 101 (no body)\n") + 20);
    return text.substr(0, text.find("0-1 GET"));
}

TEST(WebSocket, ReadsMessages)
{
    struct Case {
        const char* name;
        std::vector<Said> said;
        const char* expected;
    };
    const std::string text = frame('>', 0x81, "Hello"), bytes = frame('<', 0x82, std::string("\0\1", 2)),
                      large = frame('<', 0x81, std::string(1'000, 'x'));
    const std::string fragments = frame('<', 0x01, "Hel") + frame('<', 0x89, "?") + frame('<', 0x80, "lo");
    const std::string ping = frame('>', 0x8A, "?"), close = frame('>', 0x88, std::string("\x03\xe8", 2) + "bye"),
                      bare = frame('<', 0x88, "");
    const std::string nonsense = text + "\x83nonsense", last = frame('<', 0x80, "lo"), cut = frame('>', 0x81, "whole").substr(0, 9);
    const Case cases[] = {
        {"text and bytes",
         {{'>', text}, {'<', bytes}, {'<', large}},
         "> data Text \"Hello\" \"Hello\"\n< data Binary (2 bytes) \"\\0\1\"\n< data Text (1 kB) 1000 bytes\n"},
        {"fragments with a ping between them",
         {{'<', fragments}, {'>', ping}},
         "< data Text \"Hello\" \"Hello\"\n< data Ping \"?\"\n> data Pong \"?\"\n"},
        {"closes",
         {{'>', close}, {'<', bare}},
         "> data Close 1000 (normal closure): bye \"\3\xe8"
         "bye\"\n< data Close\n"},
        {"what is no frame",
         {{'>', nonsense}},
         "> data Text \"Hello\" \"Hello\"\n> data 9 bytes that are no WebSocket frame \"\x83nonsense\"\n"},
        {"what the capture cuts",
         {{'>', cut}},
         "> data Text \"who\" \"who\" (the capture lacks its last 2 bytes) [Message incomplete: the capture lacks its last 2 bytes]\n"},
        {"a fragment without its beginning",
         {{'<', last}},
         "< data Binary (2 bytes) \"lo\" [Message incomplete: its first fragment is missing]\n"},
    };
    const std::string reply = handshake();
    for (const auto& [name, said, expected] : cases) {
        std::vector<Said> all{{'>', request}, {'<', reply}};
        all.insert(all.end(), said.begin(), said.end());
        EXPECT_EQ(readWebSocket(all), expected) << name;
    }
}

/// Deflates messages one after another (RFC 7692 §7.2.1).
class Deflater {
public:
    Deflater() { deflateInit2(&stream_, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY); }
    ~Deflater() { deflateEnd(&stream_); }
    std::string message(std::string_view text)
    {
        std::string bytes(text.size() + 100, '\0');
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        stream_.avail_in = static_cast<uInt>(text.size());
        stream_.next_out = reinterpret_cast<Bytef*>(bytes.data());
        stream_.avail_out = static_cast<uInt>(bytes.size());
        ::deflate(&stream_, Z_SYNC_FLUSH);
        bytes.resize(bytes.size() - stream_.avail_out - 4);  // without 00 00 FF FF
        return bytes;
    }

private:
    z_stream stream_{};
};

TEST(WebSocket, InflatesMessagesInAnyOrder)
{
    // RFC 7692 §7.2.3.1 and §7.2.3.2: "Hello" twice, with and without context; §7.2.3.4 in a fragment each.
    const std::string first("\xf2\x48\xcd\xc9\xc9\x07\x00", 7), again("\xf2\x00\x11\x00\x00", 5);
    const std::string shared = frame('<', 0xC1, first) + frame('<', 0xC1, again),
                      own = frame('<', 0xC1, first) + frame('<', 0x41, first.substr(0, 3)) + frame('<', 0x80, first.substr(3));
    EXPECT_EQ(readWebSocket({{'>', request}, {'<', handshake("Sec-WebSocket-Extensions: permessage-deflate\r\n")}, {'<', shared}}),
              "< data Text (7 bytes deflated) \"Hello\"\n< data Text (5 bytes deflated) \"Hello\"\n");
    EXPECT_EQ(
        readWebSocket(
            {{'>', request}, {'<', handshake("Sec-WebSocket-Extensions: permessage-deflate; server_no_context_takeover\r\n")}, {'<', own}}),
        "< data Text (7 bytes deflated) \"Hello\"\n< data Text (7 bytes deflated) \"Hello\"\n");

    // More messages than lie between two points that are kept.
    Deflater deflater;
    std::string all;
    std::vector<std::string> texts;
    for (int i = 0; i < 10'000; ++i) {
        texts.push_back("message number " + std::to_string(i) + " of many that look alike");
        all += frame('>', 0xC1, deflater.message(texts.back()));
    }
    const auto result = HTTP1Interpreter::interpret(
        conversation({{'>', request}, {'<', handshake("Sec-WebSocket-Extensions: permessage-deflate\r\n")}, {'>', all}}), {});
    ASSERT_EQ(result.messages.size(), 10'002u);
    for (const std::size_t i : {9'999, 0, 5'000, 4'999, 5'000, 9'998, 1})
        EXPECT_EQ(result.messages[i + 2].body->bytes().view().text(), texts[i]) << i;
    for (std::size_t i = 0; i < texts.size(); ++i) ASSERT_EQ(result.messages[i + 2].body->length(), std::ssize(texts[i])) << i;
}

TEST(WebSocket, BoundsWhatAMessageInflatesTo)
{
    Deflater deflater;
    const std::string bomb = frame('<', 0xC1, deflater.message(std::string(60'000, 'a')));
    const auto result = HTTP1Interpreter::interpret(
        conversation({{'>', request}, {'<', handshake("Sec-WebSocket-Extensions: permessage-deflate\r\n")}, {'<', bomb}}),
        {.largestDecodedBody = 1'000});
    EXPECT_EQ(result.messages.at(2).body->length(), 1'000);
    EXPECT_EQ(result.messages.at(2).body->ending().reason, "it decodes to more than the limit of 1 kB");
}

TEST(WebSocket, IsRecognised)
{
    const std::string client = frame('>', 0x81, "one") + frame('>', 0x81, "two") + frame('>', 0x89, "") + frame('>', 0x81, "three");
    const std::string server = frame('<', 0x81, "1") + frame('<', 0x81, "2") + frame('<', 0x8A, "") + frame('<', 0x82, "4");
    EXPECT_TRUE(WebSocketInterpreter::canInterpret(conversation({{'>', client}, {'<', server}}), {})) << "without its handshake";
    EXPECT_TRUE(WebSocketInterpreter::canInterpret(conversation({{'>', "x"}}), {.applicationProtocol = "websocket"}));
    const std::vector<Said> others[] = {
        {{'>', server}, {'<', client}},
        {{'>', request}},
        {{'>', "EHLO x\r\n"}, {'<', "220 ready\r\n"}},
        {{'>', "*1\r\n$4\r\nPING\r\n"}},
        {{'>', std::string_view("\x10\x0c\0\4MQTT\4\2\0\x3c\0\0", 14)}},
        {},
    };
    for (const auto& said : others) EXPECT_FALSE(WebSocketInterpreter::canInterpret(conversation(said), {}));
    for (std::uint64_t seed = 0; seed < 500; ++seed)
        EXPECT_FALSE(WebSocketInterpreter::canInterpret(vectorStream(patternBytes(300, seed), patternBytes(300, seed + 1'000)), {}));
}

}  // namespace
}  // namespace sealscope
