// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Head.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

std::string readHTTP1(const std::vector<Said>& said, const StreamContext& context = {})
{
    return transcript(HTTP1Interpreter::interpret(conversation(said), context));
}

struct HTTP1Case {
    const char* name;
    std::vector<Said> said;
    const char* expected;
};

void check(const std::vector<HTTP1Case>& cases)
{
    for (const auto& [name, said, expected] : cases) EXPECT_EQ(readHTTP1(said), expected) << name;
}

TEST(HTTP1, FramesBodiesAsTheStandardSays)
{
    check({
        {"a length",
         {{'>', "GET /a?b=c HTTP/1.1\r\nHost: h\r\n\r\n"},
          {'<', "HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=x\r\nContent-Length: 5\r\n\r\nhello"}},
         "> request GET http://h/a?b=c\n< reply 200 (text/html, 5 bytes) \"hello\"\n0-1 GET /a?b=c → 200 (text/html, 5 bytes, 1 ms)\n"},
        {"up to the end of the connection, over several packets",
         {{'>', "GET http://h/x HTTP/1.0\r\n\r\n"}, {'<', "HTTP/1.0 200\r\n\r\nab"}, {'<', "cd"}},
         "> request GET http://h/x\n< reply 200 (4 bytes) \"abcd\" [Header malformed: bad status]\n0-1 GET /x → 200 (4 bytes, 2 ms)\n"},
        {"chunks with extensions and trailers; the next message behind them",
         {{'>', "GET / HTTP/1.1\r\nHost: h\r\n\r\nGET /2 HTTP/1.1\r\nHost: h\r\n\r\n"},
          {'<', "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x=\"y\"\r\nabc\r\n00"},
          {'<', "2\r\nde\r\n0\r\nX-Sum: 7\r\n\r\nHTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"}},
         "> request GET http://h/\n> request GET http://h/2\n< reply 200 (5 bytes) \"abcde\" [X-Sum (trailer): 7]\n< reply 404 (no body)\n"
         "0-2 GET / → 200 (5 bytes, 2 ms)\n1-3 GET /2 → 404 (no body, 2 ms)\n"},
        {"none after HEAD, and with 204 and 304, whatever the fields say",
         {{'>', "HEAD / HTTP/1.1\r\nHost: h\r\n\r\nGET /b HTTP/1.1\r\nHost: h\r\n\r\nGET /c HTTP/1.1\r\nHost: h\r\n\r\n"},
          {'<', "HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\nHTTP/1.1 204 No Content\r\n\r\nHTTP/1.1 304 Not Modified\r\nContent-Length: "
                "7\r\n\r\n"}},
         "> request HEAD http://h/\n> request GET http://h/b\n> request GET http://h/c\n< reply 200 (no body)\n< reply 204 (no body)\n< "
         "reply 304 (no body)\n"
         "0-3 HEAD / → 200 (no body, 1 ms)\n1-4 GET /b → 204 (no body, 1 ms)\n2-5 GET /c → 304 (no body, 1 ms)\n"},
        {"interim replies are not the reply",
         {{'>', "POST / HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n"},
          {'<', "HTTP/1.1 100 Continue\r\n\r\n"},
          {'>', "ok"},
          {'<', "HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\nHTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"}},
         "> request POST http://h/ \"ok\"\n< data 100 Continue\n< data 103 Early Hints\n< reply 201 (no body)\n0-3 POST / → 201 (no body, "
         "3 ms)\n"},
        {"empty lines before a message, and lines that end in a line feed alone",
         {{'>', "\r\n\r\nGET / HTTP/1.1\nHost: h\n\n"}, {'<', "HTTP/1.1 200 OK\nContent-Length: 1\n\nx"}},
         "> request GET http://h/ [Header malformed: lines end in a line feed alone]\n"
         "< reply 200 (1 byte) \"x\" [Header malformed: lines end in a line feed alone]\n0-1 GET / → 200 (1 byte, 1 ms)\n"},
        {"an unanswered request, and what the capture cuts",
         {{'>', "GET /a HTTP/1.1\r\nHost: h\r\n\r\n"},
          {'<', "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhello"},
          {'>', "GET /b HTTP/1.1\r\nHo"}},
         "> request GET http://h/a\n< reply 200 (5 bytes) \"hello\" (995 of its 1,000 bytes are missing) [Body incomplete: 995 of its "
         "1,000 bytes are missing]\n"
         "> request GET http://192.0.2.2:443/b [Header line without a name: Ho] [Header incomplete: the capture ends in it]\n0-1 GET /a → "
         "200 (5 bytes, 1 ms)\n2-? GET /b\n"},
    });
}

TEST(HTTP1, SaysWhereBadInputStopsMakingSense)
{
    const std::string get = "GET / HTTP/1.1\r\nHost: h\r\n\r\n", again = get + get;
    const std::string next = "HTTP/1.1 204 No Content\r\n\r\n";
    struct BadCase {
        const char* name;
        std::string reply;
        const char* expected;  ///< of the first reply
    };
    const BadCase cases[] = {
        {"a length beside chunks", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n",
         "200 (1 byte) \"a\" [Header malformed: bad Transfer-Encoding] [Content length unclear: Content-Length stands beside "
         "Transfer-Encoding, as in request smuggling; it was ignored]"},
        {"two lengths: the one behind which a message begins", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab",
         "200 (2 bytes) \"ab\" [Header malformed: bad Content-Length] [Content length unclear: 2 different lengths are given; 2 was "
         "taken]"},
        {"one length twice", "HTTP/1.1 200 OK\r\nContent-Length: 2, 2\r\n\r\nab", "200 (2 bytes) \"ab\""},
        {"no number", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nab\r\n",
         "200 (4 bytes) \"ab\\r\\n\" [Header malformed: bad Content-Length] [Content length unclear: \"-1\" is no number of bytes]"},
        {"nonsense in place of a chunk's size", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\nzz\r\n",
         "200 (1 byte) \"a\" (a chunk's size makes no sense at byte 6 of the chunked data, and the chunks behind it cannot be told apart)"},
        {"a chunk larger than anything", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n", "200 (no body)"},
        {"a field without a colon", "HTTP/1.1 200 OK\r\nnothing here\r\nContent-Length: 0\r\n\r\n",
         "200 (no body) [Header line without a name: nothing here] [Header malformed: bad field]"},
    };
    for (const auto& [name, reply, expected] : cases) {
        const auto result = HTTP1Interpreter::interpret(conversation({{'>', again}, {'<', reply + next}}), {});
        ASSERT_GE(result.messages.size(), 4u) << name;
        std::string text = transcript(result);
        text.erase(0, text.find("< reply ") + 8);
        EXPECT_TRUE(text.starts_with(expected)) << name << '\n' << text;
        EXPECT_EQ(result.messages.back().summary, "204 (no body)") << name << ": the reply behind it is found";
    }
}

TEST(HTTP1, GoesOnBehindLostBytes)
{
    const char* const get = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
    check({
        {"in a body they are zeros",
         {{'>', get}, {'<', "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\na"}, {'}', "xx"}, {'<', "d"}},
         "> request GET http://h/\n< reply 200 (4 bytes) \"a\\0\\0d\" (the capture lacks 2 bytes of it, shown as zeros) "
         "[Body incomplete: the capture lacks 2 bytes of it, shown as zeros]\n"
         "0-1 GET / → 200 (4 bytes, 2 ms)\n"},
        {"in a header: what is before them, and the next reply, which answers the latest question before it",
         {{'>', get},
          {'<', "HTTP/1.1 200 OK\r\nServer: x\r\nCont"},
          {'}', "xx"},
          {'<', "\r\n\r\nbody"},
          {'>', "GET /2 HTTP/1.1\r\nHost: h\r\n\r\n"},
          {'<', "\nHTTP/1.1 204 No Content\r\n\r\n"}},
         "> request GET http://h/\n< reply 200 (no body) [Header line without a name: Cont] "
         "[Header incomplete: the capture lacks 2 bytes of it]\n"
         "< data 11 bytes behind an incomplete header \"\\0\\0\\r\\n\\r\\nbody\\n\" (the capture lacks 2 bytes of it, shown as zeros)\n"
         "> request GET http://h/2\n< reply 204 (no body)\n0-1 GET / → 200 (no body, 1 ms)\n3-4 GET /2 → 204 (no body, 1 ms)\n"},
        {"in a chunk's size",
         {{'>', get},
          {'<', "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n"},
          {'}', "xx"},
          {'<', "\r\n\r\nHTTP/1.1 408 T\r\n\r\n"}},
         "> request GET http://h/\n< reply 200 (1 byte) \"a\" (the capture lacks a chunk's size at byte 6 of the chunked data, and the "
         "chunks behind it "
         "cannot be told apart) [Body incomplete: the capture lacks a chunk's size at byte 6 of the chunked data, and the chunks behind it "
         "cannot be told "
         "apart]\n< data 6 bytes outside of any reply \"\\0\\0\\r\\n\\r\\n\" (the capture lacks 2 bytes of it, shown as zeros)\n< reply "
         "408 (no body)\n0-1 GET / → 200 (1 byte, 1 ms)\n"},
        {"a capture that begins in the middle: a reply without its request",
         {{'<', "rest of a body\r\nHTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"}, {'>', get}, {'<', "HTTP/1.1 204 No Content\r\n\r\n"}},
         "< data 16 bytes outside of any reply \"rest of a body\\r\\n\"\n< reply 200 (1 byte) \"x\"\n> request GET http://h/\n< reply 204 "
         "(no body)\n"
         "2-3 GET / → 204 (no body, 1 ms)\n"},
        {"the server's side alone", {{'<', "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"}}, "< reply 200 (1 byte) \"x\"\n"},
    });
}

/// An application that shows what it is asked for.
class RecordingHost final : public StreamHost {
public:
    std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream&, const StreamContext&) const override
    {
        return std::nullopt;
    }
    std::optional<StreamInterpretation> carriedInterpretation(const TCPStream& stream, const StreamContext& context) const override
    {
        StreamInterpretation carried;
        for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient}) {
            const StreamData& data = stream.data(direction);
            StreamMessage message{.direction = direction};
            message.summary = fmt::format("{} at depth {}", context.applicationProtocol.value_or("unknown"), context.depth);
            message.body = StreamBody(data);
            message.byteRange = {1, data.size()};
            const ByteLocation place = stream.locate(*message.byteRange, direction);
            message.packetIds = place.packetIds;
            message.timestamp = place.timestamp.value_or(0);
            carried.messages.push_back(std::move(message));
        }
        return carried;
    }
};

TEST(HTTP1, HandsOverWhatATunnelCarries)
{
    const RecordingHost host;
    const StreamContext context{.host = &host};
    const auto stream = conversation(
        {{'>', "CONNECT h:443 HTTP/1.1\r\nHost: h:443\r\n\r\n"}, {'<', "HTTP/1.1 200 OK\r\n\r\nser"}, {'<', "ver"}, {'>', "client"}});
    const auto result = HTTP1Interpreter::interpret(stream, context);
    EXPECT_EQ(transcript(result), "> request CONNECT http://h:443\n< reply 200 (no body)\n< data unknown at depth 1 \"server\"\n> data "
                                  "unknown at depth 1 \"client\"\n"
                                  "0-1 CONNECT h:443 → 200 (no body, 1 ms)\n");
    const StreamMessage& inside = result.messages.at(2);
    EXPECT_EQ(inside.packetIds, (std::vector<std::int64_t>{2, 3})) << "the packets of the capture";
    EXPECT_EQ(*inside.byteRange, (ByteRange{20, 25})) << "of the outer stream";

    EXPECT_EQ(readHTTP1({{'>', "GET / HTTP/1.1\r\nHost: h\r\nConnection: Upgrade\r\nUpgrade: chat\r\n\r\n"},
                    {'<', "HTTP/1.1 101 S\r\nUpgrade: chat\r\n\r\nyo"},
                    {'>', "hi"}},
                   context),
              "> request GET http://h/\n< reply 101 (no body)\n< data chat at depth 1 \"yo\"\n> data chat at depth 1 \"hi\"\n0-1 GET / → "
              "101 (no body, 1 ms)\n");
    EXPECT_EQ(readHTTP1({{'>', "CONNECT h:1 HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\nHost: h\r\n\r\n"},
                    {'<', "HTTP/1.1 403 No\r\nContent-Length: 1\r\n\r\nxHTTP/1.1 204 N\r\n\r\n"}},
                   context),
              "> request CONNECT http://h:1\n> request GET http://h/\n< reply 403 (1 byte) \"x\"\n< reply 204 (no body)\n0-2 CONNECT h:1 → "
              "403 (1 byte, 1 ms)\n"
              "1-3 GET / → 204 (no body, 1 ms)\n")
        << "a tunnel that is refused is none";
}

TEST(HTTP1, IsRecognisedByContent)
{
    struct Recognised {
        const char* name;
        std::vector<Said> said;
        bool expected;
    };
    const Recognised cases[] = {
        {"a request", {{'>', "GET / HTTP/1.1\r\n"}}, true},
        {"a reply alone", {{'<', "HTTP/1.1 200 OK\r\n"}}, true},
        {"a method of one's own", {{'>', "BREW /pot HTTP/1.0\r\n"}}, true},
        {"both sides from their middle", {{'>', "rest\r\nGET / HTTP/1.1\r\n"}, {'<', "x\r\nHTTP/1.1 200 OK\r\n"}}, true},
        {"HTTP/2", {{'>', "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"}}, false},
        {"SMTP with a reply in a mail", {{'<', "220 mail ESMTP\r\n"}, {'>', "EHLO x\r\nDATA\r\nHTTP/1.1 200 OK\r\n"}}, false},
        {"IMAP", {{'<', "* OK IMAP4rev1 ready\r\n"}, {'>', "a1 LOGIN u p\r\n"}}, false},
        {"Redis", {{'>', "*2\r\n$3\r\nGET\r\n$1\r\na\r\n"}, {'<', "$-1\r\n"}}, false},
        {"Redis by hand", {{'>', "GET key\r\n"}}, false},
        {"MQTT", {{'>', std::string_view("\x10\x0c\0\4MQTT\4\2\0\x3c\0\0", 14)}}, false},
        {"IRC", {{'>', "NICK me\r\nUSER me 0 * :Me\r\n"}}, false},
        {"RTSP", {{'>', "OPTIONS * RTSP/1.0\r\n"}, {'<', "RTSP/1.0 200 OK\r\n"}}, false},
        {"nothing", {}, false},
    };
    for (const auto& [name, said, expected] : cases) EXPECT_EQ(HTTP1Interpreter::canInterpret(conversation(said), {}), expected) << name;
    for (std::uint64_t seed = 0; seed < 200; ++seed)
        EXPECT_FALSE(HTTP1Interpreter::canInterpret(vectorStream(patternBytes(500, seed), patternBytes(500, seed + 1'000)), {}));

    EXPECT_TRUE(HTTP1Interpreter::canInterpret(conversation({{'>', "from the middle"}}), {.applicationProtocol = "http/1.1"}))
        << "agreed on";
    EXPECT_FALSE(HTTP1Interpreter::canInterpret(conversation({{'>', "GET / HTTP/1.1\r\n"}}), {.applicationProtocol = "h2"}))
        << "another was agreed on";
}

TEST(HTTP1, TellsMachinesWhatPeopleRead)
{
    const auto result = HTTP1Interpreter::interpret(
        conversation({{'>', "GET /files/a%20b.txt?x HTTP/1.1\r\nHost: h:8080\r\nA: 1\r\nB: 2\r\nA: 3\r\n\r\n"},
                      {'<', "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=ISO-8859-1\r\nContent-Length: 1\r\n\r\nx"},
                      {'>', "PUT /up HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nContent-Disposition: attachment; filename=\"n\\\"1\"; "
                            "filename*=UTF-8''%e2%82%ac.txt\r\n\r\n"},
                      {'>', "y"}}),
        {.isDecrypted = true});
    const StreamMessage &get = result.messages.at(0), &reply = result.messages.at(1), &put = result.messages.at(2);
    EXPECT_EQ(
        get.attributes,
        (std::vector<StreamAttribute>{
            {"method", "GET"}, {"url", "https://h:8080/files/a%20b.txt?x"}, {"protocol", "HTTP/1.1"}, {"encodedBytes", std::int64_t{0}}}));
    EXPECT_EQ(get.detail, (std::vector<DetailRow>{{"Host", "h:8080"}, {"A", "1"}, {"B", "2"}, {"A", "3"}}));
    EXPECT_EQ(reply.attributes, (std::vector<StreamAttribute>{{"status", std::int64_t{200}}, {"statusText", "OK"},
                                                              {"protocol", "HTTP/1.1"},
                                                              {"contentType", "text/plain; charset=ISO-8859-1"},
                                                              {"encodedBytes", std::int64_t{1}}}));
    EXPECT_EQ(reply.filename, "a b.txt");
    EXPECT_EQ(reply.bodyHint, StreamBodyHint::text(TextEncoding::latin1));
    EXPECT_EQ(put.filename, "€.txt");
    EXPECT_EQ(put.bodyHint, StreamBodyHint::binary());
    EXPECT_EQ(put.packetIds, (std::vector<std::int64_t>{3, 4}));
    EXPECT_EQ(put.timestamp, 1'000.003);
    EXPECT_EQ(put.endTimestamp, 1'000.004);
}

TEST(HTTP1, GivesTheSameWhereverPacketsAreCut)
{
    const Data asked = Data::fromText("POST /a HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\nT: 1\r\n\r\nGET "
                                      "/b HTTP/1.1\r\nHost: h\r\n\r\n");
    const Data answered = Data::fromText(
        "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcHTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\n\r\n");
    const auto bare = [&](const VectorStreamOptions& options) {
        const auto result = HTTP1Interpreter::interpret(vectorStream(asked, answered, options), {});
        std::vector<std::string> lines;
        for (const StreamMessage& message : result.messages)
            lines.push_back(message.summary + (message.body ? escaped(message.body->bytes()) : ""));
        return lines;
    };
    const auto expected = bare({});
    EXPECT_EQ(expected.size(), 4u);
    for (std::int64_t segment = 1; segment < 40; ++segment)
        EXPECT_EQ(bare({.segmentSize = segment, .isScattered = true}), expected) << segment;
    // Every beginning is read without trouble, and says less.
    for (std::int64_t end = 0; end < answered.size(); ++end)
        EXPECT_LE(HTTP1Interpreter::interpret(vectorStream(asked, answered.sub(0, end)), {}).messages.size(), 5u) << end;
}

TEST(HTTP1, BoundsWhatABombCosts)
{
    // A header of a million fields, one that never ends, and a hundred thousand conflicting lengths.
    std::string fields = "GET / HTTP/1.1\r\n";
    for (int i = 0; i < 200'000; ++i) fields += "a:\r\n";
    const auto bomb = HTTP1Interpreter::interpret(vectorStream(Data::fromText(fields + "\r\n"), {}), {});
    ASSERT_EQ(bomb.messages.size(), 1u);
    EXPECT_LE(bomb.messages[0].detail.size(), HTTP1Head::mostFields + 2);
    EXPECT_EQ(bomb.messages[0].detail.back().name, "Header malformed");

    const auto endless =
        HTTP1Interpreter::interpret(vectorStream(Data::fromText("GET / HTTP/1.1\r\nA: " + std::string(3'000'000, 'a')), {}), {});
    EXPECT_EQ(endless.messages.at(0).detail.back().value, "it is longer than 1 MB");

    std::string conflicts;
    for (int i = 0; i < 20'000; ++i) conflicts += "GET / HTTP/1.1\r\nContent-Length: 900\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(HTTP1Interpreter::interpret(vectorStream(Data::fromText(conflicts), {}), {}).messages.size(), 20'000u);
}

}  // namespace
}  // namespace sealscope
