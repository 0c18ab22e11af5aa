// SPDX-License-Identifier: Apache-2.0
// Connections of many messages, told part by part and exchange by exchange.
#include "harness/HTTP2Writer.h"
#include "host/VELModels/StreamExchanges.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "tests/interpreters/HTTP/HTTPTranscript.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>

namespace sealscope {
namespace {

/// Rounds of some requests in a packet, and some of the replies in another.
TCPStream rounds(const std::string& clientBegins, int count, const std::function<std::string(int)>& asks,
                 const std::function<std::string(int)>& answers)
{
    constexpr int atOnce = 50;
    std::vector<std::string> packets{clientBegins};
    for (int round = 0; round < count / atOnce; ++round)
        for (const auto& say : {asks, answers}) {
            std::string& packet = packets.emplace_back();
            for (int i = 0; i < atOnce; ++i) packet += say(round * atOnce + i);
        }
    std::vector<Said> said{{'>', packets.front()}};
    for (std::size_t i = 1; i < packets.size(); ++i) said.push_back({i % 2 == 1 ? '>' : '<', packets[i]});
    return conversation(said);
}

template <class Interpreter> void expectTheSameInParts(const char* name, const TCPStream& stream, const StreamContext& context)
{
    const StreamInterpretation whole = Interpreter::interpret(stream, context);
    ASSERT_GT(whole.messages.size(), 3'000u) << name;
    StreamInterpretation joined{.pairings = std::vector<Pairing>()};
    std::size_t largest = 0;
    Interpreter::forEachPart(stream, context, [&](StreamPart& part) {
        EXPECT_EQ(part.first, std::ssize(joined.messages)) << name;
        largest = std::max(largest, part.messages.size());
        std::ranges::move(part.messages, std::back_inserter(joined.messages));
        std::ranges::move(part.pairings, std::back_inserter(*joined.pairings));
        return true;
    });
    EXPECT_LE(largest, 1'000u) << name;
    if (joined.pairings->empty()) joined.pairings.reset();
    EXPECT_TRUE(transcript(joined) == transcript(whole)) << name;

    int parts = 0;
    Interpreter::forEachPart(stream, context, [&](StreamPart&) { return ++parts < 2; });
    EXPECT_EQ(parts, 2) << name << ": no more when nobody wants it";

    const auto reader = Interpreter::exchanges(stream, context);
    for (const StreamExchange& expected : exchangesOf(whole)) {
        StreamExchange exchange;
        ASSERT_TRUE(reader->nextTime()) << name;
        reader->next(exchange);
        for (const auto message : {&StreamExchange::request, &StreamExchange::reply}) {
            ASSERT_EQ((exchange.*message).has_value(), (expected.*message).has_value()) << name;
            if (exchange.*message) { ASSERT_EQ((exchange.*message)->summary, (expected.*message)->summary) << name; }
        }
    }
    EXPECT_FALSE(reader->nextTime()) << name;
}

TEST(Parts, HaveWhatTheWholeHas)
{
    // Some hundred messages may be held.
    const StreamContext context{.mostHeld = 2 << 20};
    const auto path = [](int i) { return "/" + std::to_string(i); };
    const auto asks = [&](int i) { return "GET " + path(i) + " HTTP/1.1\r\nHost: h\r\n\r\n"; };
    const auto answers = [](int) { return std::string("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"); };
    expectTheSameInParts<HTTP1Interpreter>("requests and replies", rounds("", 2'000, asks, answers), context);
    expectTheSameInParts<HTTP1Interpreter>("no replies", rounds("", 4'000, asks, [](int) { return ""; }), context);
    const auto events = [](int i) {
        return (i == 0 ? "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\n" : "") + std::string("data: x\n\n");
    };
    expectTheSameInParts<HTTP1Interpreter>("events", rounds(asks(0), 4'000, [](int) { return ""; }, events), context);
    const std::string upgrade = "GET / HTTP/1.1\r\nHost: h\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n";
    const auto text = [](int) { return std::string("\x81\x82\0\0\0\0hi", 8); };
    const auto bytes = [](int i) {
        return (i == 0 ? "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n" : "") + std::string("\x82\2\0\1", 4);
    };
    expectTheSameInParts<HTTP1Interpreter>("WebSocket messages", rounds(upgrade, 2'000, text, bytes), context);

    HTTP2Writer asker, refuser;
    const std::string connect = inOrder({HTTP2Writer::preface(), asker.headers(1, {{":method", "CONNECT"}, {":authority", "a:1"}})});
    const std::string refusal = refuser.headers(1, {{":status", "404"}, {"content-type", "text/event-stream"}});
    const auto refusedEvents = [&](int i) { return (i == 0 ? refusal : "") + HTTP2Writer::data(1, "data: x\n\n"); };
    expectTheSameInParts<HTTP2Interpreter>("a refused tunnel", rounds(connect, 4'000, [](int) { return ""; }, refusedEvents), context);

    // Few enough streams to be held while they are read, and too many for that.
    for (const int count : {2'000, 6'000}) {
        HTTP2Writer client, server;
        const auto number = [](int i) { return static_cast<std::uint32_t>(2 * i + 1); };
        const std::string pad(200, 'x');
        // Every second reply ends a round later, when those behind it have been told.
        const auto replies = [&](int i) {
            std::string frames = server.headers(number(i), {{":status", "200"}, {"x-text", pad + std::to_string(i)}});
            if (i % 2 == 0) return frames + HTTP2Writer::data(number(i), "ok", endStream);
            return i < 50 ? frames : frames + HTTP2Writer::data(number(i - 50), "ok", endStream);
        };
        // Some are cancelled when their replies have begun; these are waited for, so that they come late where few may be held.
        const auto requests = [&](int i) {
            const std::string frames = client.headers(number(i), HTTP2Writer::get(path(i) + pad), endStream);
            const bool cancels = i % 100 == 57 && i > count - 300;
            return cancels ? frames + HTTP2Writer::frame(HTTP2Writer::Type::rstStream, 0, number(i - 50), {"\0\0\0\x08", 4}) : frames;
        };
        expectTheSameInParts<HTTP2Interpreter>(std::to_string(count).c_str(), rounds(HTTP2Writer::preface(), count, requests, replies),
                                               context);
    }
}

}  // namespace
}  // namespace sealscope
