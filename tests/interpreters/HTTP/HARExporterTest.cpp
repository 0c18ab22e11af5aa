// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HARExporter.h"

#include "harness/HTTP2Writer.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

/// The archive of what was made of some streams.
std::string archiveOf(const std::vector<std::pair<TCPStream, StreamInterpretation>>& streams)
{
    std::string written;
    const StreamExporter::Write write = [&](DataView bytes) {
        written += bytes.text();
        return true;
    };
    const auto exporter = HARExporter::format.create();
    exporter->begin(write);
    for (const auto& [stream, interpretation] : streams) exporter->add({stream, interpretation}, write);
    exporter->end(write);
    return written;
}

std::string archive(const std::vector<TCPStream>& streams)
{
    std::vector<std::pair<TCPStream, StreamInterpretation>> interpreted;
    for (const TCPStream& stream : streams)
        interpreted.emplace_back(stream, HTTP2Interpreter::canInterpret(stream, {}) ? HTTP2Interpreter::interpret(stream, {})
                                                                                    : HTTP1Interpreter::interpret(stream, {}));
    return archiveOf(interpreted);
}

nlohmann::json entries(const std::vector<Said>& said)
{
    return nlohmann::json::parse(archive({conversation(said)})).at("log").at("entries");
}

TEST(HARExporter, WritesAnEntryAsTheFormatHasIt)
{
    const auto made = entries(
        {{'>', "POST /form?a=1+2&b=%e2%82%ac HTTP/1.1\r\nHost: h\r\nCookie: x=1; y=2\r\nContent-Type: application/x-www-form-urlencoded\r\n"
               "Content-Length: 7\r\n\r\nk=v%20w"},
         {'<',
          "HTTP/1.1 302 Found\r\nLocation: /next\r\nSet-Cookie: s=t; Path=/; Expires=Wed, 21 Oct 2015 07:28:00 GMT; HttpOnly; Secure\r\n"
          "Content-Type: text/plain\r\nContent-Length: 4\r\n\r\n\"\xe2\x82"},
         {'<', "\xac"}});
    const auto expected = nlohmann::json::parse(R"([{
        "startedDateTime": "1970-01-01T00:16:40.001Z", "time": 2.0, "serverIPAddress": "192.0.2.2", "connection": "0", "cache": {},
        "request": {"method": "POST", "url": "http://h/form?a=1+2&b=%e2%82%ac", "httpVersion": "HTTP/1.1", "headersSize": -1, "bodySize": 7,
            "cookies": [{"name": "x", "value": "1"}, {"name": "y", "value": "2"}],
            "headers": [{"name": "Host", "value": "h"}, {"name": "Cookie", "value": "x=1; y=2"},
                {"name": "Content-Type", "value": "application/x-www-form-urlencoded"}, {"name": "Content-Length", "value": "7"}],
            "queryString": [{"name": "a", "value": "1 2"}, {"name": "b", "value": "€"}],
            "postData": {"mimeType": "application/x-www-form-urlencoded", "params": [{"name": "k", "value": "v w"}], "text": "k=v%20w"}},
        "response": {"status": 302, "statusText": "Found", "httpVersion": "HTTP/1.1", "headersSize": -1, "bodySize": 4, "redirectURL": "/next",
            "cookies": [{"name": "s", "value": "t", "path": "/", "expires": "2015-10-21T07:28:00.000Z", "httpOnly": true, "secure": true}],
            "headers": [{"name": "Location", "value": "/next"},
                {"name": "Set-Cookie", "value": "s=t; Path=/; Expires=Wed, 21 Oct 2015 07:28:00 GMT; HttpOnly; Secure"},
                {"name": "Content-Type", "value": "text/plain"}, {"name": "Content-Length", "value": "4"}],
            "content": {"mimeType": "text/plain", "text": "\"€", "size": 4}},
        "timings": {"blocked": -1, "dns": -1, "connect": -1, "ssl": -1, "send": 0.0, "wait": 1.0, "receive": 1.0}}])");
    EXPECT_EQ(made, expected) << made.dump(1);
}

TEST(HARExporter, KeepsBodiesOfEveryKind)
{
    const std::string get = "GET / HTTP/1.1\r\nHost: h\r\n\r\n", text = "text/plain; charset=utf-8";
    const auto content = [&](const std::string& type, const std::string& body) {
        const std::string reply =
            "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        return entries({{'>', get}, {'<', reply}}).at(0).at("response").at("content");
    };
    EXPECT_EQ(content("image/png", std::string("\0\1\2\3", 4)),
              nlohmann::json::parse(R"({"mimeType": "image/png", "text": "AAECAw==", "encoding": "base64", "size": 4})"));
    EXPECT_EQ(content(text, "\xff\xfe").at("encoding"), "base64") << "it is not the text that it says it is";
    EXPECT_EQ(content("text/plain; charset=iso-8859-1", "\xe9").at("text"), "é");
    std::string euros;
    for (int i = 0; i < 100'000; ++i) euros += "€";
    EXPECT_EQ(content(text, "x" + euros).at("text"), "x" + euros) << "characters that pieces part";
    const std::string bytes(patternBytes(200'000).view().text());
    EXPECT_EQ(content("application/octet-stream", bytes).at("text").get<std::string>().size(), 266'668u);

    const auto open = entries({{'>', get + get}, {'<', "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n\r\nhalf"}});
    EXPECT_EQ(open.at(0).at("response").at("content").at("comment"), "5 of its 9 bytes are missing");
    EXPECT_EQ(open.at(1).at("comment"), "the capture lacks the reply");
    EXPECT_EQ(open.at(1).at("response").at("status"), 0);
    EXPECT_EQ(entries({{'<', "HTTP/1.1 204 No Content\r\n\r\n"}}).at(0).at("comment"), "the capture lacks the request");
}

// Two bytes are a message, and an entry of sixty.
TEST(HARExporter, LeavesOutWebSocketMessagesBeyondNumber)
{
    std::string frames = "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n";
    for (int i = 0; i < 210'000; ++i) frames += std::string_view("\x81\0", 2);
    const std::string request = "GET / HTTP/1.1\r\nHost: h\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n";
    const TCPStream socket = conversation({{'>', request}, {'<', frames}});
    StreamExchange exchange;
    HTTP1Interpreter::exchanges(socket, {})->next(exchange);
    const std::string text = archiveOf({{socket, {{*exchange.request, *exchange.reply}, {{{.requestIndex = 0, .replyIndex = 1}}}}}});
    std::size_t messages = 0;
    for (std::size_t at = 0; (at = text.find("\"opcode\"", at)) != std::string::npos; ++at) ++messages;
    EXPECT_EQ(messages, 200'000 + (request.size() + frames.size()) / 64);
    EXPECT_TRUE(text.contains("],\"comment\":\"further WebSocket messages are left out\"}"));
}

TEST(HARExporter, HasWebSocketMessagesAndManyStreams)
{
    const std::string reply = "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n";
    const TCPStream socket = conversation({{'>', "GET /chat HTTP/1.1\r\nHost: h\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n"},
                                           {'<', reply},
                                           {'>', std::string_view("\x81\x82\0\0\0\0hi", 8)},
                                           {'<', std::string_view("\x82\2\0\1", 4)}});
    HTTP2Writer client, server;
    const std::string asked = inOrder({HTTP2Writer::preface(), client.headers(1, HTTP2Writer::get("/a"), HTTP2Writer::endStream)});
    const std::string answered = server.headers(1, {{":status", "204"}}, HTTP2Writer::endStream);
    const auto log = nlohmann::json::parse(archive({socket, conversation({{'>', asked}, {'<', answered}})})).at("log");
    EXPECT_EQ(log.at("version"), "1.2");
    ASSERT_EQ(log.at("entries").size(), 2u);
    EXPECT_EQ(log.at("entries")[0].at("_webSocketMessages"), nlohmann::json::parse(R"([
        {"type": "send", "time": 1000.003, "opcode": 1, "data": "hi"}, {"type": "receive", "time": 1000.004, "opcode": 2, "data": "AAE="}])"));
    // Told exchange by exchange, the reply has them.
    StreamExchange exchange;
    HTTP1Interpreter::exchanges(socket, {})->next(exchange);
    const StreamInterpretation exchanges{{*exchange.request, *exchange.reply}, {{{.requestIndex = 0, .replyIndex = 1}}}};
    EXPECT_EQ(archiveOf({{socket, exchanges}}), archive({socket}));
    EXPECT_EQ(log.at("entries")[1].at("request").at("httpVersion"), "HTTP/2");
    EXPECT_EQ(nlohmann::json::parse(archive({})).at("log").at("entries").size(), 0u);
}

}  // namespace
}  // namespace sealscope
