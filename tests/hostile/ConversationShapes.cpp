// SPDX-License-Identifier: Apache-2.0
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/hostile/Shape.h"

#include <zlib.h>

namespace sealscope::hostile {

namespace {

using Text = std::string;

Text textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }
Bytes bytesOf(const Text& text) { return {text.begin(), text.end()}; }

/// Bytes for DEFLATE that mean `count` times `piece`, with windowBits as for deflateInit2.
Text deflated(const Text& piece, int count, int windowBits)
{
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, windowBits, 9, Z_DEFAULT_STRATEGY);
    Text packed;
    const auto add = [&](int flush) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
        stream.avail_in = static_cast<unsigned>(piece.size());
        const std::size_t before = packed.size();
        packed.resize(before + deflateBound(&stream, piece.size()) + 64);
        stream.next_out = reinterpret_cast<Bytef*>(packed.data() + before);
        stream.avail_out = static_cast<unsigned>(packed.size() - before);
        deflate(&stream, flush);
        packed.resize(packed.size() - stream.avail_out);
        return packed.substr(before);
    };
    // From the second on they are alike, behind a full flush, which forgets what was before.
    add(Z_FULL_FLUSH);
    const Text another = add(Z_FULL_FLUSH);
    deflateEnd(&stream);
    return packed + times(another, count - 2);
}
constexpr int gzipFormat = 31, rawFormat = -15;

/// A frame of zstd in which `blocks` times 128 KiB are said in four bytes each (RFC 8878 §3.1.1.2).
Text zstdOfRuns(int blocks)
{
    return Text("\x28\xB5\x2F\xFD\x00\x58", 6) + times(std::string_view("\x02\x00\x10\x00", 4), blocks) + Text("\x01\x00\x00", 3);
}

Text reply(std::string_view fields, const Text& body)
{
    return "HTTP/1.1 200 OK\r\n" + Text(fields) + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Frames of HTTP/2 (RFC 9113 §4.1).
Text frame(int type, int flags, std::uint32_t stream, std::string_view payload = {})
{
    Bytes bytes;
    put32(put8(put8(put24(bytes, payload.size()), static_cast<std::uint64_t>(type)), static_cast<std::uint64_t>(flags)), stream);
    return textOf(put(bytes, payload));
}
enum { data = 0, headers = 1, priority = 2, reset = 3, settings = 4, promise = 5, ping = 6, windowUpdate = 8, continuation = 9 };
constexpr int endStream = 1, endHeaders = 4;
const Text preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(settings, 0, 0);
const Text get = "\x82\x87\x84", ok = "\x88";  // of the static table: GET, https, "/"; 200

/// A literal field that goes into the table (RFC 7541 §6.2.1); lengths below 16,000.
Text newField(std::string_view name, std::string_view value)
{
    const auto string = [](std::string_view text) {
        if (text.size() < 127) return Text(1, static_cast<char>(text.size())) + Text(text);
        const std::size_t rest = text.size() - 127;
        return Text{'\x7F', static_cast<char>(0x80 | (rest & 0x7F)), static_cast<char>(rest >> 7)} + Text(text);
    };
    return "\x40" + string(name) + string(value);
}

/// What both sides say under encryption, and the key log that opens it.
Made saveConversation(const std::filesystem::path& folder, const std::vector<std::string>& protocols, const Text& client,
                      const Text& server)
{
    const TLSSession session = runTLS({.clientProtocols = protocols, .serverProtocols = protocols, .certificates = {{}}},
                                      {clientSends(client), serverSends(server)});
    writeFile(folder / "keys", DataView(std::string_view(session.keyLog)));
    Attack attack;
    attack.open(0);
    for (const TLSFlight& flight : session.flights) {
        const DataView wire = flight.wire;
        attack.send(0, flight.direction == TCPSegment::Direction::serverToClient, Bytes(wire.begin(), wire.end()));
    }
    return save(folder, attack);
}

}  // namespace

std::vector<Shape> conversationShapes()
{
    std::vector<Shape> shapes;
    const std::vector<std::vector<std::string>> commands = {{"follow"},
                                                            {"follow", "--json"},
                                                            {"exchanges"},
                                                            {"exchanges", "--json"},
                                                            {"objects", "--force", "--output", "plain"},
                                                            {"export", "har", "--force", "--output", "plain.har"},
                                                            {"export", "curl", "--force", "--output", "plain.sh"}};
    const auto add = [&](std::string name, const std::vector<std::string>& protocol, std::function<Text()> client,
                         std::function<Text()> server) {
        shapes.push_back(
            {.name = std::move(name),
             .make = [=](const std::filesystem::path& folder) { return saveConversation(folder, protocol, client(), server()); },
             .keyLog = "keys",
             .commands = commands});
    };
    const auto addPlain = [&](std::string name, std::function<void(Attack&)> make) {
        auto ofPlain = commands;
        ofPlain.push_back({"export", "pem", "--force", "--output", "plain.pem"});
        shapes.push_back({.name = std::move(name),
                          .make =
                              [=](const std::filesystem::path& folder) {
                                  Attack attack;
                                  make(attack);
                                  return save(folder, attack);
                              },
                          .commands = std::move(ofPlain)});
    };
    const auto says = [](Text text) { return [text] { return text; }; };
    const Text request = "GET /a HTTP/1.1\r\nHost: a\r\n\r\n";

    const auto addReply = [&](std::string name, std::function<Text()> answer) { add(std::move(name), {}, says(request), answer); };
    addReply("BodyOfGzipThatUnpacks", [] { return reply("Content-Encoding: gzip\r\n", deflated(Text(1 << 20, 'a'), 512, gzipFormat)); });
    addReply("BodyOfZstdThatUnpacks", [] { return reply("Content-Encoding: zstd\r\n", zstdOfRuns(200'000)); });
    addReply("BodyOfCodingsInCodings", [] {
        return reply("Content-Encoding: gzip, gzip\r\n", deflated(deflated(Text(1 << 20, 'a'), 2'048, gzipFormat), 2, gzipFormat));
    });
    addReply("BodyOfCodingsBeyondNumber", [] { return reply("Content-Encoding: " + times("gzip,", 12'000) + "gzip\r\n", Text(100, 'a')); });
    add(
        "BodiesOfGzipThatUnpack", {}, [=] { return times(request, 500); },
        [] { return times(reply("Content-Encoding: gzip\r\n", deflated(Text(100'000, 'a'), 10, gzipFormat)), 500); });
    addReply("ChunksOfOneByte", [] { return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + times("1\r\nx\r\n", 800'000); });
    addReply("ChunksWithExtensions",
             [] { return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + times("1;" + Text(15'000, 'e') + "\r\nx\r\n", 400); });
    addReply("LengthsBeyondNumber", [] {
        return times("HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\n", 10) +
               "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFF\r\n" + Text(1'000'000, 'a');
    });
    addReply("FieldsBeyondNumber", [] { return "HTTP/1.1 200 OK\r\n" + times("a:b\r\n", 800'000) + "\r\n"; });
    addReply("FieldWithoutEnd", [] { return "HTTP/1.1 200 OK\r\na: " + Text(6 << 20, 'a'); });
    addReply("FieldsInLines", [] { return "HTTP/1.1 200 OK\r\na: b\r\n" + times(" c\r\n", 250'000) + "\r\n"; });
    addReply("BodyWithoutLength", [] { return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n" + Text(6 << 20, '\x1B'); });
    addReply("FieldsInFields",
             [] { return reply("Content-Type: application/grpc\r\n", Text("\0\0\x0F\x42\x40", 5) + Text(1'000'000, '\x0B')); });
    addReply("ValuesInValues", [] { return reply("Content-Type: application/json\r\n", Text(3'000'000, '[')); });
    add(
        "NamesInQuery", {}, [] { return "GET /?" + times("a=b&", 15'000) + " HTTP/1.1\r\nCookie: " + times("a=b;", 200'000) + "\r\n\r\n"; },
        [] { return times(reply("Set-Cookie: " + times("a=b;", 20'000) + "\r\n", ""), 40); });
    add(
        "NamesInForm", {},
        [] {
            const Text form = times("a=%41&", 500'000);
            return "POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " + std::to_string(form.size()) +
                   "\r\n\r\n" + form;
        },
        says(reply("", "")));
    add("TextThatATerminalObeysInHeads", {},
        says("GET /\x1B]0;owned\x07 HTTP/1.1\r\nHost: \xE2\x80\xAE"
             "a\xC2\x9B\r\n\x1B[2J: \x1B[2J\r\n\r\n"),
        says(reply("Content-Type: text/\x1B[31m\r\nContent-Disposition: attachment; filename=\"../\x1B[2J\"\r\n", "\x1B]0;owned\x07")));
    add(
        "TunnelsInTunnels", {}, [] { return times("CONNECT a:1 HTTP/1.1\r\n\r\n", 60'000); },
        [] { return times("HTTP/1.1 200 \r\n\r\n", 60'000); });
    add(
        "UpgradesInUpgrades", {}, [] { return times("GET / HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\n", 30'000); },
        [] { return times("HTTP/1.1 101 \r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\n", 30'000); });

    const Text upgrade = "GET / HTTP/1.1\r\nHost: a\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n";
    const Text upgraded = "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                          "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n";
    const auto addSocket = [&](std::string name, std::function<Text()> frames) {
        add(std::move(name), {}, says(upgrade), [=] { return upgraded + frames(); });
    };
    addSocket("SocketMessageInPieces", [] { return Text("\x01\x01x", 3) + times(std::string_view("\x00\x01x", 3), 600'000); });
    addSocket("SocketFrameWithoutEnd", [] { return Text("\x82\x7F\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10) + Text(1'000'000, 'a'); });
    addSocket("SocketMessagesThatUnpack", [] {
        const Text packed = deflated(Text(1 << 20, 'a'), 8, rawFormat);
        return times(Text("\xC1\x7E", 2) + Text{static_cast<char>(packed.size() >> 8), static_cast<char>(packed.size())} + packed, 100);
    });

    const auto addFrames = [&](std::string name, std::function<Text()> fromClient, std::function<Text()> fromServer = nullptr) {
        add(
            std::move(name), {"h2"}, [=] { return preface + fromClient(); },
            [=] { return frame(settings, 0, 0) + (fromServer ? fromServer() : Text()); });
    };
    const auto requestOn = [](std::uint32_t stream, std::string_view more = {}) {
        return frame(headers, endStream | endHeaders, stream, get + Text(more));
    };
    addFrames("ContinuationsWithoutEnd", [] { return frame(headers, 0, 1, get) + times(frame(continuation, 0, 1), 400'000); });
    addFrames("ContinuationsOfOneByte", [] { return frame(headers, 0, 1, get) + times(frame(continuation, 0, 1, "\x82"), 400'000); });
    addFrames("DataWithoutBytes", [=] { return frame(headers, endHeaders, 1, get) + times(frame(data, 0, 1), 400'000); });
    addFrames("DataOfOneByte", [=] { return frame(headers, endHeaders, 1, get) + times(frame(data, 0, 1, "x"), 400'000); });
    addFrames("DataOfStreamsByTurns", [=] {
        Text said, turn;
        for (std::uint32_t i = 0; i < 2'000; ++i)
            said += frame(headers, endHeaders, 2 * i + 1, get), turn += frame(data, 0, 2 * i + 1, "x");
        return said + times(turn, 200);
    });
    addFrames("Pings", [] { return times(frame(ping, 0, 0, "12345678"), 300'000); });
    addFrames("Settings", [] { return times(frame(settings, 0, 0, times(std::string_view("\0\x01\x7F\xFF\xFF\xFF", 6), 100)), 10'000); });
    addFrames("SettingsOfManyValues",
              [] { return times(frame(settings, 0, 0, times(std::string_view("\0\x01\x7F\xFF\xFF\xFF", 6), 2'700)), 400); });
    addFrames("WindowUpdates", [] { return times(frame(windowUpdate, 0, 0, std::string_view("\0\0\0\x01", 4)), 400'000); });
    addFrames("Priorities", [=] { return requestOn(1) + times(frame(priority, 0, 1, std::string_view("\0\0\0\0\x01", 5)), 400'000); });
    addFrames("FramesOfNoKnownType", [] { return times(frame(200, 0, 1), 500'000); });
    addFrames("SizesOfTheTable",
              [=] { return requestOn(1) + times(frame(headers, endStream | endHeaders, 3, Text(16'000, '\x20')), 200); });
    addFrames(
        "TunnelsInTunnelsOfStreams",
        [=] {
            // CONNECT (RFC 9113 §8.5), and in its data the same again.
            Text inner;
            for (int i = 0; i < 400; ++i) {
                const Text head = preface + frame(headers, endHeaders, 1, newField(":method", "CONNECT") + newField(":authority", "a:1"));
                Text outer = head;
                for (std::size_t at = 0; at < inner.size(); at += 16'384)
                    outer += frame(data, 0, 1, std::string_view(inner).substr(at, 16'384));
                inner = outer;
            }
            return inner;
        },
        [] {
            Text inner;
            for (int i = 0; i < 400; ++i) {
                Text outer = frame(settings, 0, 0) + frame(headers, endHeaders, 1, ok);
                for (std::size_t at = 0; at < inner.size(); at += 16'384)
                    outer += frame(data, 0, 1, std::string_view(inner).substr(at, 16'384));
                inner = outer;
            }
            return inner;
        });

    // Who holds the messages of a connection, or its streams, until all are there has too many of these.
    add(
        "BodiesThatUnpack", {}, [=] { return times(request, 4'000); },
        [] { return times(reply("Content-Encoding: zstd\r\n", zstdOfRuns(30)), 4'000); });
    addReply("RepliesWithoutRequests", [] { return times(reply("", ""), 60'000); });
    add("RequestsWithoutReplies", {}, [] { return times("GET / HTTP/1.1\r\n\r\n", 60'000); }, says(""));
    add("RequestsAndReplies", {}, [] { return times("GET / HTTP/1.1\r\n\r\n", 50'000); }, [] { return times(reply("", ""), 50'000); });
    addReply("RepliesBeforeTheReply", [] { return times("HTTP/1.1 100 \r\n\r\n", 100'000); });
    addReply("HeadsOfFields", [] { return times("HTTP/1.1 200 OK\r\n" + times("a:b\r\n", 4'000) + "Content-Length: 0\r\n\r\n", 100); });
    addReply("EventsOfOneByte", [] { return reply("Content-Type: text/event-stream\r\n", times("data:x\n\n", 150'000)); });
    addReply("MessagesWithoutBytes", [] { return reply("Content-Type: application/grpc\r\n", Text(1'500'000, '\0')); });
    add(
        "ObjectsOfOneName", {}, [] { return times("GET /../../a.html HTTP/1.1\r\nHost: a\r\n\r\n", 1'000); },
        [] { return times(reply("", "x"), 1'000); });
    addSocket("SocketMessagesWithoutBytes", [] { return times(std::string_view("\x81\x00", 2), 150'000); });
    addPlain("SocketMessagesThatArePlain", [=](Attack& attack) {
        attack.open(0);
        attack.send(0, false, bytesOf(upgrade));
        attack.send(0, true, bytesOf(upgraded + times(std::string_view("\x81\x00", 2), 2'000'000)));
    });
    addPlain("ConnectionsSideBySide", [](Attack& attack) {
        constexpr int count = 1'000;
        for (int i = 0; i < count; ++i) attack.open(i);
        for (int i = 0; i < count; ++i) attack.send(i, false, bytesOf(times("GET / HTTP/1.1\r\n\r\n", 200)));
    });
    addPlain("FieldsOfTwoBytes", [=](Attack& attack) {
        // Messages of gRPC, each of which is 200 fields.
        const Text message = Text("\0\0\0\x01\x90", 5) + times("\x08\x01", 200);
        const Text grpc = newField("content-type", "application/grpc");
        attack.open(0);
        attack.send(0, false, bytesOf(preface + requestOn(1, grpc)));
        attack.send(0, true,
                    bytesOf(frame(settings, 0, 0) + frame(headers, endHeaders, 1, ok + grpc) +
                            times(frame(data, 0, 1, times(message, 40)), 1'500)));
    });
    addSocket("SocketPings", [] { return times(std::string_view("\x89\x00", 2), 150'000); });
    addFrames("HeadersOfOneLongField", [=] {
        Text said = requestOn(1, newField("a", Text(3'900, 'v')));
        for (std::uint32_t stream = 3; stream < 200; stream += 2) said += requestOn(stream, Text(16'000, '\xBE'));
        return said;
    });
    addFrames("HeadersOfOneShortField", [=] {
        Text said = requestOn(1, newField("a", "b"));
        for (std::uint32_t stream = 3; stream < 800; stream += 2) said += requestOn(stream, Text(4'000, '\xBE'));
        return said;
    });
    addFrames(
        "TableOfShortFields",
        [=] {
            Text said = frame(settings, 0, 0, std::string_view("\0\x01\x7F\xFF\xFF\xFF", 6));
            for (std::uint32_t stream = 1; stream < 200; stream += 2) said += requestOn(stream, times(newField("", ""), 5'000));
            return said;
        },
        [] { return frame(settings, 0, 0, std::string_view("\0\x01\x7F\xFF\xFF\xFF", 6)); });
    add(
        "EventsThatUnpack", {}, [=] { return times(request, 50); },
        [] {
            const Text event = "data:" + Text(1 << 20, 'a') + "\n\n";
            return times(reply("Content-Type: text/event-stream\r\nContent-Encoding: gzip\r\n", deflated(event, 15, gzipFormat)), 50);
        });
    add(
        "RequestsInATunnel", {}, [] { return "CONNECT a:1 HTTP/1.1\r\n\r\n" + times("GET / HTTP/1.1\r\n\r\n", 40'000); },
        [] { return "HTTP/1.1 200 OK\r\n\r\n" + times(reply("", ""), 40'000); });
    const auto ofStreams = [](int count, const std::function<Text(std::uint32_t)>& framesOf) {
        return [=] {
            Text said;
            for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(count); ++i) said += framesOf(2 * i + 1);
            return said;
        };
    };
    const auto openOn = [=](std::uint32_t stream) { return frame(headers, endHeaders, stream, get); };
    addFrames("StreamsBeyondNumber", ofStreams(70'000, openOn));
    addFrames("StreamsThatAreReset", ofStreams(50'000, [=](std::uint32_t stream) {
                  return openOn(stream) + frame(reset, 0, stream, std::string_view("\0\0\0\x08", 4));
              }));
    addFrames("StreamsWithReplies", ofStreams(50'000, [=](std::uint32_t stream) { return requestOn(stream); }),
              ofStreams(50'000, [](std::uint32_t stream) { return frame(headers, endStream | endHeaders, stream, ok); }));
    addFrames("DataOfNoStream", ofStreams(60'000, [](std::uint32_t stream) { return frame(data, 0, stream, "x"); }));
    addFrames(
        "SocketInAStream",
        [=] {
            // RFC 8441.
            return frame(headers, endHeaders, 1, newField(":method", "CONNECT") + newField(":protocol", "websocket") + "\x87\x84") +
                   times(frame(data, 0, 1, std::string_view("\x81\x80\0\0\0\0", 6)), 80'000);
        },
        [] { return frame(headers, endHeaders, 1, ok) + times(frame(data, 0, 1, std::string_view("\x81\x00", 2)), 80'000); });
    addFrames(
        "Promises", [=] { return requestOn(1); }, ofStreams(50'000, [](std::uint32_t stream) {
            Bytes promised;
            return frame(promise, endHeaders, 1, textOf(put32(promised, stream + 1)) + get);
        }));
    addReply("LongReply", [] { return reply("", Text(60 << 20, 'a')); });

    // The TLS plug-in alone opens these too.
    for (const char* name : {"MessagesWithoutBytes", "StreamsWithReplies", "LongReply"}) {
        auto& ofShape = std::ranges::find(shapes, name, &Shape::name)->commands;
        for (const char* command : {"follow", "exchanges"}) ofShape.push_back({command, "--json", "--reach", "strict"});
    }
    return shapes;
}

}  // namespace sealscope::hostile
