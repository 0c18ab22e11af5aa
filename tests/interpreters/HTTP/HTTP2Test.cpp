// SPDX-License-Identifier: Apache-2.0
#include "harness/HTTP2Writer.h"
#include "host/VELModels/StreamExchanges.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "interpreters/HTTP/HeaderDecompressor.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

using Type = HTTP2Writer::Type;
constexpr auto endHeaders = HTTP2Writer::endHeaders;

/// Requests and replies told one by one are those of the pairings.
void expectExchangesOf(const StreamInterpretation& whole, const TCPStream& stream)
{
    const auto reader = HTTP2Interpreter::exchanges(stream, {});
    std::vector<std::string> expected, found;
    const auto add = [](std::vector<std::string>& list, const StreamExchange& exchange) {
        const auto said = [](const std::optional<StreamMessage>& message) { return message ? message->summary : "nothing"; };
        list.push_back(said(exchange.request) + " → " + said(exchange.reply));
    };
    for (const StreamExchange& exchange : exchangesOf(whole)) add(expected, exchange);
    for (StreamExchange exchange; const auto time = reader->nextTime();) {
        reader->next(exchange);
        EXPECT_EQ(exchange.time(), *time);
        add(found, exchange);
    }
    EXPECT_EQ(found, expected);
}

/// The transcript without the frames that are shown by themselves, which have a test of their own.
std::string readHTTP2(const std::vector<Said>& said)
{
    const TCPStream stream = conversation(said);
    StreamInterpretation result = HTTP2Interpreter::interpret(stream, {});
    expectExchangesOf(result, stream);
    std::string text = transcript(result), kept;
    for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
        if (!text.starts_with("> data SETTINGS") && !text.starts_with("< data SETTINGS")) kept += text.substr(0, end + 1);
    return kept;
}

TEST(HTTP2, JoinsWhatInterleavedStreamsCarry)
{
    HTTP2Writer client, server;
    const std::string asked = inOrder(
        {HTTP2Writer::preface(), client.headers(1, HTTP2Writer::get("/a"), endStream), client.headers(3, HTTP2Writer::get("/b", "POST"))});
    const std::string body = HTTP2Writer::data(3, "up") + HTTP2Writer::data(3, "load", endStream);
    const std::string first =
        inOrder({HTTP2Writer::frame(Type::settings, 0, 0, {}), server.headers(3, {{":status", "103"}, {"link", "</x>"}}),
                 server.headers(3, {{":status", "200"}, {"content-type", "text/plain"}}), HTTP2Writer::data(3, "one "),
                 server.headers(1, {{":status", "404"}}), HTTP2Writer::data(1, "no", endStream)});
    const std::string second = inOrder({HTTP2Writer::data(3, "two"), server.headers(3, {{"x-sum", "7"}}, endStream)});
    EXPECT_EQ(readHTTP2({{'>', asked}, {'>', body}, {'<', first}, {'<', second}}),
              "> request GET https://h/a\n> request POST https://h/b \"upload\"\n< data 103\n"
              "< reply 200 (text/plain, 7 bytes) \"one two\" [x-sum (trailer): 7]\n< reply 404 (2 bytes) \"no\"\n"
              "1-6 GET /a → 404 (2 bytes, 2 ms)\n2-5 POST /b → 200 (text/plain, 7 bytes, 3 ms)\n");
}

TEST(HTTP2, TellsExchangesInTheOrderOfTheirTimes)
{
    HTTP2Writer client, server;
    const std::string asked = HTTP2Writer::preface() + client.headers(1, HTTP2Writer::get("/slow"), endStream);
    const std::string later =
        client.headers(3, HTTP2Writer::get("/quick"), endStream) + client.headers(5, HTTP2Writer::get("/never"), endStream);
    const std::string answered = server.headers(3, {{":status", "204"}}, endStream) + server.headers(1, {{":status", "200"}}, endStream);
    // In the second the capture lacks what one of the replies answers.
    for (const TCPStream& stream :
         {conversation({{'>', asked}, {'>', later}, {'<', answered}}), conversation({{'>', asked}, {'<', answered}})})
        expectExchangesOf(HTTP2Interpreter::interpret(stream, {}), stream);
}

TEST(HTTP2, TakesPaddingPrioritiesAndContinuationsAway)
{
    HTTP2Writer client, server;
    const std::string block = client.block(HTTP2Writer::get("/"));
    const std::string priority("\x80\0\0\3\x0f", 5), pad("\2", 1);
    const std::string asked =
        HTTP2Writer::preface() +
        HTTP2Writer::frame(Type::headers, 0x28 | endStream, 1, pad + priority + block.substr(0, 1) + std::string(2, '\0')) +
        HTTP2Writer::frame(Type::continuation, 0, 1, block.substr(1, 2)) +
        HTTP2Writer::frame(Type::continuation, endHeaders, 1, block.substr(3));
    const std::string answered =
        inOrder({server.headers(1, {{":status", "200"}}), HTTP2Writer::frame(Type::data, 8, 1, pad + "abc" + std::string(2, '\0')),
                 HTTP2Writer::frame(Type::data, 8 | endStream, 1, std::string("\0d", 2))});
    EXPECT_EQ(readHTTP2({{'>', asked}, {'<', answered}}),
              "> request GET https://h/ [Stream priority: weight 16, alone below stream 3]\n< reply 200 (4 bytes) \"abcd\"\n"
              "1-2 GET / → 200 (4 bytes, 1 ms)\n");
}

TEST(HTTP2, ShowsPushesResetsAndWhatIsUnanswered)
{
    HTTP2Writer client, server;
    const std::string code("\0\0\0\x08", 4);
    const std::string asked =
        inOrder({HTTP2Writer::preface(), client.headers(1, HTTP2Writer::get("/a"), endStream),
                 client.headers(3, HTTP2Writer::get("/b"), endStream), client.headers(5, HTTP2Writer::get("/c"), endStream)});
    const std::string answered = inOrder(
        {HTTP2Writer::frame(Type::pushPromise, endHeaders, 1, std::string("\0\0\0\2", 4) + server.block(HTTP2Writer::get("/style"))),
         server.headers(1, {{":status", "200"}}, endStream), server.headers(2, {{":status", "200"}}),
         HTTP2Writer::data(2, "css", endStream), server.headers(3, {{":status", "200"}}), HTTP2Writer::data(3, "par")});
    EXPECT_EQ(readHTTP2({{'>', asked}, {'<', answered}, {'>', HTTP2Writer::frame(Type::rstStream, 0, 3, code)}}),
              "> request GET https://h/a\n> request GET https://h/b [Stream reset: CANCEL (0x8)]\n> request GET https://h/c\n"
              "< request GET https://h/style [Pushed by the server: on stream 1]\n< reply 200 (no body)\n< reply 200 (3 bytes) \"css\"\n"
              "< reply 200 (3 bytes) \"par\" (the stream was reset: CANCEL (0x8)) [Body incomplete: the stream was reset: CANCEL (0x8)]\n"
              "> data RST_STREAM 3 CANCEL (0x8)\n"
              "1-5 GET /a → 200 (no body, 1 ms)\n2-7 GET /b → 200 (3 bytes, 1 ms)\n3-? GET /c\n4-6 GET /style → 200 (3 bytes, 0 ms)\n");
}

TEST(HTTP2, ShowsWhatFramesSayOfTheConnection)
{
    const std::string settings("\0\1\0\0\x10\0\0\3\0\0\0\x64\x99\x99\0\0\0\1", 18);
    const std::string asked = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + HTTP2Writer::frame(Type::settings, 0, 0, settings) +
                              HTTP2Writer::frame(Type::windowUpdate, 0, 0, std::string("\0\1\0\0", 4)) +
                              HTTP2Writer::frame(Type::priority, 0, 3, std::string("\0\0\0\0\xc8", 5)) +
                              HTTP2Writer::frame(Type::ping, 0, 0, "12345678") + HTTP2Writer::frame(Type{0x77}, 1, 9, "?") +
                              HTTP2Writer::frame(Type::goAway, 0, 0, std::string("\0\0\0\5\0\0\0\xb", 8) + "calm");
    const auto result = HTTP2Interpreter::interpret(conversation({{'>', asked}}), {});
    EXPECT_EQ(transcript(result), "> data SETTINGS\n> data PING \"12345678\"\n> data Frame of type 0x77 \"?\"\n"
                                  "> data GOAWAY ENHANCE_YOUR_CALM (0xB) \"calm\" [Last stream: 5]\n"
                                  "> data HTTP/2 flow control and priorities [Window updates: 1] [Granted to the connection: 65.5 kB] "
                                  "[Priority of stream 3: weight 201, below stream 0]\n");
    EXPECT_EQ(result.messages.at(0).detail,
              (std::vector<DetailRow>{{"HEADER_TABLE_SIZE", "4096"}, {"MAX_CONCURRENT_STREAMS", "100"}, {"0x9999", "1"}}));
}

// RFC 7541, Appendix C.3 and C.6: requests without and replies with Huffman coding, one table for each direction.
TEST(HTTP2, DecompressesTheStandardsExamples)
{
    const auto decompressed = [](HeaderDecompressor& decompressor, const char* bytes) {
        HeaderDecompressor::Block block;
        decompressor.push(hex(bytes), block);
        decompressor.end(block);
        EXPECT_EQ(block.problem, std::nullopt);
        std::string text;
        block.fields.forEach([&](std::string_view name, std::string_view value) {
            text.append(name).append(1, '=').append(value).append(1, '\n');
            return true;
        });
        return text;
    };
    HeaderDecompressor requests, late;
    EXPECT_EQ(decompressed(requests, "8286 8441 0f77 7777 2e65 7861 6d70 6c65 2e63 6f6d"),
              ":method=GET\n:scheme=http\n:path=/\n:authority=www.example.com\n");
    EXPECT_EQ(decompressed(requests, "8286 84be 5808 6e6f 2d63 6163 6865"),
              ":method=GET\n:scheme=http\n:path=/\n:authority=www.example.com\ncache-control=no-cache\n");
    const char* const third = "8287 85bf 400a 6375 7374 6f6d 2d6b 6579 0c63 7573 746f 6d2d 7661 6c75 65";
    EXPECT_EQ(decompressed(requests, third),
              ":method=GET\n:scheme=https\n:path=/index.html\n:authority=www.example.com\ncustom-key=custom-value\n");

    // The same without the first: entry 62 is the second's, entry 63 is the first's.
    late.forget();
    EXPECT_EQ(decompressed(late, "8286 84be 5808 6e6f 2d63 6163 6865"),
              ":method=GET\n:scheme=http\n:path=/\n(table entry 62)=unknown: the capture lacks where it was set\ncache-control=no-cache\n");
    EXPECT_EQ(decompressed(late, third),
              ":method=GET\n:scheme=https\n:path=/index.html\n(table entry 63)=unknown: the capture lacks where it was set\n"
              "custom-key=custom-value\n");
    EXPECT_EQ(decompressed(late, "be"), "custom-key=custom-value\n");
    EXPECT_EQ(decompressed(late, "7f0103 616263"), "(unknown name)=abc\n") << "entry 64 was set before";

    HeaderDecompressor replies;
    EXPECT_EQ(decompressed(replies, "4882 6402 5885 aec3 771a 4b61 96d0 7abe 9410 54d4 44a8 2005 9504 0b81 66e0 82a6 2d1b ff6e 919d 29ad "
                                    "1718 63c7 8f0b 97c8 e9ae 82ae 43d3"),
              ":status=302\ncache-control=private\ndate=Mon, 21 Oct 2013 20:13:21 GMT\nlocation=https://www.example.com\n");
}

TEST(HTTP2, ReadsAConnectionWhoseStartIsMissing)
{
    HTTP2Writer client, server;
    client.headers(1, HTTP2Writer::get("/a"));  // before the capture
    server.headers(1, {{":status", "200"}, {"server", "own"}});
    const auto fields = HTTP2Writer::get("/b");
    const std::string asked = inOrder({"rest of a frame", client.headers(3, fields, endStream), client.headers(5, fields, endStream),
                                       client.headers(7, fields, endStream)});
    const std::string answered =
        inOrder({server.headers(3, {{":status", "200"}, {"server", "own"}, {"x", "new"}}, endStream),
                 server.headers(5, {{":status", "204"}}, endStream), server.headers(7, {{":status", "204"}}, endStream)});
    const std::vector<Said> said{{'>', asked}, {'<', answered}};
    EXPECT_TRUE(HTTP2Interpreter::canInterpret(conversation(said), {}));
    const std::string text = readHTTP2(said), table = " [(table entry 62): unknown: the capture lacks where it was set] "
                                                 "[Header incomplete: 1 of its fields refer to earlier ones that the capture lacks]\n";
    EXPECT_TRUE(text.starts_with("> data 15 bytes outside of any frame\n> request GET https://192.0.2.2:443/b" + table)) << text;
    EXPECT_NE(text.find("< reply 200 (no body)" + table + "< reply 204 (no body)\n"), std::string::npos) << text;
    const auto result = HTTP2Interpreter::interpret(conversation(said), {});
    EXPECT_EQ(result.messages.at(4).detail.at(2), (DetailRow{"x", "new"})) << "literal fields are there";
}

TEST(HTTP2, GoesOnBehindLostBytes)
{
    HTTP2Writer client, server;
    const std::string asked = inOrder({HTTP2Writer::preface(), client.headers(1, HTTP2Writer::get("/a"), endStream)});
    const std::string head = server.headers(1, {{":status", "200"}});
    const std::string body = HTTP2Writer::data(1, "abcdefgh", endStream);
    const std::string more = inOrder({server.headers(3, {{":status", "204"}}, endStream), HTTP2Writer::frame(Type::ping, 0, 0, "12345678"),
                                      server.headers(5, {{":status", "204"}}, endStream)});
    EXPECT_EQ(readHTTP2({{'>', asked}, {'<', head + body.substr(0, 12)}, {'}', body.substr(12, 2)}, {'<', body.substr(14)}}),
              "> request GET https://h/a\n< reply 200 (8 bytes) \"abc\\0\\0fgh\" (the capture lacks 2 bytes of it, shown as zeros) "
              "[Body incomplete: the capture lacks 2 bytes of it, shown as zeros]\n"
              "1-2 GET /a → 200 (8 bytes, 2 ms)\n")
        << "in a body";
    EXPECT_EQ(readHTTP2({{'>', asked}, {'<', head + body.substr(0, 12)}, {'}', body.substr(12) + "lost"}, {'<', more}}),
              "> request GET https://h/a\n< reply 200 (8 bytes) \"abc\\0\\0\\0\\0\\0\" (the capture lacks 5 bytes of it, shown as zeros) "
              "[Body incomplete: the capture lacks 5 bytes of it, shown as zeros]\n"
              "< data 4 bytes outside of any frame\n< reply 204 (no body)\n< data PING \"12345678\"\n< reply 204 (no body)\n"
              "1-2 GET /a → 200 (8 bytes, 1 ms)\n")
        << "across frames";
}

TEST(HTTP2, BoundsWhatBadInputCosts)
{
    // Ten thousand times a field of 2,900 bytes, a byte each.
    HTTP2Writer client;
    auto fields = HTTP2Writer::get("/");
    fields.emplace_back("x", std::string(2'900, 'x'));
    std::string block = client.block(fields) + std::string(10'000, '\xbe');
    const auto bomb = HTTP2Interpreter::interpret(
        conversation({{'>', HTTP2Writer::preface() + HTTP2Writer::frame(Type::headers, endHeaders | endStream, 1, block)}}), {});
    const StreamMessage& request = bomb.messages.at(1);
    EXPECT_LT(request.detail.size(), 400u);
    EXPECT_TRUE(request.detail.back().value.ends_with(" further fields are not shown")) << request.detail.back().value;

    struct Case {
        const char* name;
        std::string bytes;
    };
    const Case cases[] = {
        {"a frame of 16 MB that is not there", HTTP2Writer::data(1, {}).replace(0, 3, "\xff\xff\xff")},
        {"continuations of nothing", HTTP2Writer::frame(Type::continuation, 0, 1, "abc")},
        {"a block that never ends", HTTP2Writer::frame(Type::headers, 0, 1, "\x82") + HTTP2Writer::frame(Type::headers, 0, 3, "\x82")},
        {"compression of nonsense", HTTP2Writer::frame(Type::headers, endHeaders, 1, "\xff\xff\xff\xff\xff\xff") +
                                        HTTP2Writer::frame(Type::headers, endHeaders, 3, "\x82")},
        {"padding longer than the frame",
         HTTP2Writer::frame(Type::data, 8, 1, "\xff") + HTTP2Writer::frame(Type::headers, 8 | endHeaders, 1, "\xff")},
        {"no frame", std::string(1'000, '\1')},
    };
    for (const auto& [name, bytes] : cases) {
        const std::string all = HTTP2Writer::preface() + bytes;
        for (std::size_t end = 0; end <= all.size(); ++end) {
            const std::string cut = all.substr(0, end);
            EXPECT_LE(HTTP2Interpreter::interpret(conversation({{'>', cut}}), {}).messages.size(), 6u) << name << " up to " << end;
        }
    }
}

TEST(HTTP2, ComesByUpgradeAndCarriesTunnels)
{
    HTTP2Writer client, server;
    const std::string asked = inOrder({HTTP2Writer::preface(), client.headers(3, HTTP2Writer::get("/b"), endStream)});
    const std::string answered = inOrder({"HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\n",
                                          HTTP2Writer::frame(Type::settings, 0, 0, {}), server.headers(1, {{":status", "200"}}),
                                          HTTP2Writer::data(1, "one", endStream), server.headers(3, {{":status", "204"}}, endStream)});
    const std::vector<Said> upgraded{
        {'>', "GET /a HTTP/1.1\r\nHost: h\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\nHTTP2-Settings: AAA\r\n\r\n"},
        {'<', answered},
        {'>', asked}};
    EXPECT_EQ(transcript(HTTP1Interpreter::interpret(conversation(upgraded), {})),
              "> request GET http://h/a\n< data 101 Switching Protocols\n< data SETTINGS\n< reply 200 (3 bytes) \"one\"\n< reply 204 (no "
              "body)\n> data SETTINGS\n"
              "> request GET https://h/b\n0-3 GET /a → 200 (3 bytes, 1 ms)\n6-4 GET /b → 204 (no body, 0 ms)\n");

    HTTP2Writer tunnelClient, tunnelServer;
    const std::string connect = inOrder(
        {HTTP2Writer::preface(),
         tunnelClient.headers(
             1, {{":method", "CONNECT"}, {":protocol", "websocket"}, {":scheme", "https"}, {":authority", "h"}, {":path", "/chat"}}),
         HTTP2Writer::data(1, std::string("\x81\x82\0\0\0\0h", 7)), HTTP2Writer::data(1, "i")});
    EXPECT_EQ(readHTTP2({{'>', connect}, {'<', inOrder({tunnelServer.headers(1, {{":status", "200"}}), HTTP2Writer::data(1, "\x81\2yo")})}}),
              "> request CONNECT https://h/chat\n> data Text \"hi\" \"hi\"\n"
              "< reply 200 (no body)\n< data Text \"yo\" \"yo\"\n1-3 CONNECT /chat → 200 "
              "(no body, 1 ms)\n");
}

TEST(HTTP2, IsRecognised)
{
    EXPECT_TRUE(HTTP2Interpreter::canInterpret(conversation({{'>', HTTP2Writer::preface()}}), {}));
    EXPECT_TRUE(HTTP2Interpreter::canInterpret(conversation({{'>', "anything"}}), {.applicationProtocol = "h2"}));
    EXPECT_FALSE(HTTP2Interpreter::canInterpret(conversation({{'>', HTTP2Writer::preface()}}), {.applicationProtocol = "http/1.1"}));
    const std::vector<Said> others[] = {
        {{'>', "GET / HTTP/1.1\r\nHost: h\r\n\r\n"}},
        {{'>', "EHLO x\r\n"}, {'<', "220 ready\r\n"}},
        {{'<', "* OK IMAP4rev1\r\n"}},
        {{'>', "*1\r\n$4\r\nPING\r\n"}},
        {{'>', std::string_view("\x10\x0c\0\4MQTT\4\2\0\x3c\0\0", 14)}},
        {{'>', "NICK a\r\nUSER a 0 * :a\r\n"}},
        {{'>',
          std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 50)}},
    };
    for (const auto& said : others) EXPECT_FALSE(HTTP2Interpreter::canInterpret(conversation(said), {})) << said[0].text;
    for (std::uint64_t seed = 0; seed < 200; ++seed)
        EXPECT_FALSE(HTTP2Interpreter::canInterpret(vectorStream(patternBytes(3'000, seed), patternBytes(3'000, seed + 1'000)), {}));
}

}  // namespace
}  // namespace sealscope
