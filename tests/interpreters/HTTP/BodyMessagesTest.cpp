// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "interpreters/HTTP/ProtobufFields.h"

#include "harness/HTTP2Writer.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

// The messages are the examples of the protocol buffers documentation, "Encoding": 150, "testing", and the first inside another.
TEST(BodyMessages, ShowsTheMessagesOfACall)
{
    HTTP2Writer client, server;
    const std::string number("\x08\x96\x01", 3), nested("\x1a\x03\x08\x96\x01", 5);
    const Data gzipped = hex("1f8b080000000000020313622f492d2ec9cc4b070038f2651b09000000");
    const std::string first = std::string("\0\0\0\0\3", 5) + number, second = std::string("\0\0\0\0\5", 5) + nested;
    const std::string third = std::string("\1\0\0\0\x1d", 5) + std::string(gzipped.view().text()) + std::string("\0\0\0\0\7", 5) + "cut";
    const std::string asked = inOrder({HTTP2Writer::preface(),
                                       client.headers(1, {{":method", "POST"}, {":scheme", "https"}, {":authority", "h"}, {":path", "/p.S/Call"}, {"content-type", "application/grpc+proto"}}),
                                       HTTP2Writer::data(1, first + second.substr(0, 4)), HTTP2Writer::data(1, second.substr(4), endStream)});
    const std::string answered = inOrder({server.headers(1, {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-encoding", "gzip"}}), HTTP2Writer::data(1, third),
                                          server.headers(1, {{"grpc-status", "5"}, {"grpc-message", "not%20there"}}, endStream)});
    const auto result = HTTP2Interpreter::interpret(conversation({{'>', asked}, {'<', answered}}), {});
    std::string text;
    for (const StreamMessage& message : result.messages) {
        if (!message.summary.starts_with("gRPC")) continue;
        text += message.summary + " \"" + escaped(message.body->bytes()) + '"';
        for (const DetailRow& row : message.detail) text += " [" + row.name + ": " + row.value + ']';
        text += '\n';
    }
    EXPECT_EQ(text, "gRPC message /p.S/Call (3 bytes) \"\x08\x96\x01\" [Field 1 (varint): 150]\n"
                    "gRPC message /p.S/Call (5 bytes) \"\x1a\x03\x08\x96\x01\" [Field 3 (length-delimited): 3 bytes] [Field 3.1 (varint): 150]\n"
                    "gRPC message /p.S/Call (29 bytes gzip) \"\x12\x07testing\" [Field 2 (length-delimited): \"testing\"]\n"
                    "gRPC message /p.S/Call (7 bytes) \"cut\" [Message incomplete: 4 of its 7 bytes are missing]\n");
    EXPECT_EQ(result.pairings->at(0).summary, "POST /p.S/Call → 200 (application/grpc, 42 bytes, gRPC status 5 not there, 1 ms)");
    EXPECT_EQ(result.messages.at(1).attribute("protocol") ? displayText(*result.messages.at(1).attribute("protocol")) : "", "gRPC");
}

TEST(BodyMessages, ShowEveryWireTypeAndNothingOfOtherBytes)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"0d0000803f 1100000000000000c0", "1 (32 bits): 1065353216 or 1; 2 (64 bits): 13835058055282163712 or -2; "},
        {"0b 1005 1b 2001 1c 0c 2801", "1 (group): ; 1.2 (varint): 5; 1.3 (group): ; 1.3.4 (varint): 1; 5 (varint): 1; "},
        {"0a 03 0b0c00", "1 (length-delimited): 3 bytes; "},  // a zero is no field
        {"0b 1005", nullptr},                                  // a group without an end
        {"0b 1005 14", nullptr},                               // with another's
        {"0c", nullptr},
        {"0a 05 6162", nullptr},
        {"08 ffffffffffffffffffff01", nullptr},
        {"0e 00", nullptr},
        {"00 00", nullptr},
    };
    for (const auto& [bytes, expected] : cases) {
        std::string text;
        for (const DetailRow& row : ProtobufFields::rows(hex(bytes)))
            text += (row.name.starts_with("Field ") ? row.name.substr(6) : row.name) + ": " + row.value + "; ";
        EXPECT_EQ(text, expected ? expected : "Fields unknown: it is no protocol buffers message; ") << bytes;
    }
}

// The examples of the HTML standard, §9.2.6.
TEST(BodyMessages, ShowsEventsAsEvents)
{
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\n";
    const std::string events = head + ": test stream\n\ndata: first event\nid: 1\n\ndata:second event\nid\n\ndata:  third event\n\nevent: add\rdata: 73\rdata: x\r\rdata: cut";
    const auto result = HTTP1Interpreter::interpret(conversation({{'>', "GET /s HTTP/1.1\r\nHost: h\r\n\r\n"}, {'<', events}}), {});
    std::string text;
    for (const StreamMessage& message : result.messages)
        if (message.kind == StreamMessageKind::data)
            text += message.summary + " \"" + escaped(message.body->bytes()) + "\" " + displayText(*message.attribute("eventType")) + '\n';
    EXPECT_EQ(text, "Event message (11 bytes) \"first event\" message\nEvent message (12 bytes) \"second event\" message\n"
                    "Event message (12 bytes) \" third event\" message\nEvent add (4 bytes) \"73\\nx\" add\n");
    const ByteRange range = *result.messages.at(2).byteRange;
    EXPECT_EQ(events.substr(static_cast<std::size_t>(range.lower), static_cast<std::size_t>(range.size())), "data: first event\nid: 1\n\n");
}

}  // namespace
}  // namespace sealscope
