// SPDX-License-Identifier: Apache-2.0
#include "tests/app/desktop/Browsing.h"

#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"

#include <QBuffer>
#include <QImage>

#include <string>
#include <string_view>

namespace sealscope::desktop {

namespace {

using Direction = TCPSegment::Direction;

std::string request(std::string_view line, std::string_view host, std::string_view fields = "", std::string_view body = "")
{
    std::string text = std::string(line) + " HTTP/1.1\r\nHost: " + std::string(host) + "\r\nUser-Agent: Browser/1.0\r\n" + std::string(fields);
    if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + std::string(body);
}

std::string reply(std::string_view status, std::string_view type, std::string_view body, std::string_view fields = "")
{
    return "HTTP/1.1 " + std::string(status) + "\r\nContent-Type: " + std::string(type) + "\r\n" + std::string(fields) +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

/// Coloured squares.
std::string picture()
{
    QImage image(96, 64, QImage::Format_RGB32);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) image.setPixel(x, y, qRgb(x * 255 / 95, y * 255 / 63, (x / 16 + y / 16) % 2 == 0 ? 220 : 90));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes.toStdString();
}

TCPConversationOptions at(int port, const char* server, std::uint16_t serverPort, double seconds)
{
    return {.client = endpoint("192.0.2.17", static_cast<std::uint16_t>(port)),
            .server = endpoint(server, serverPort),
            .startTime = 1'700'000'000'000'000'000 + static_cast<std::int64_t>(seconds * 1e9),
            .interval = 9'000'000};
}

}  // namespace

Browsing::Browsing(const TempDirectory& directory)
{
    const std::string_view cart = R"({"cart":{"items":[{"name":"Grüner Tee","price":4.50,"count":2},{"name":"Cup","price":12.00,"count":1}],)"
                                  R"("total":21.00,"currency":"EUR"},"ok":true,"id":12345678901234567890})";
    const TLSSession shop = runTLS(
        {.serverName = "shop.example.org"},
        {clientSends(request("GET /", "shop.example.org", "Accept: text/html\r\n")),
         serverSends(reply("200 OK", "text/html; charset=utf-8", "<!doctype html>\n<title>Shop</title>\n<script>alert('never')</script>\n")),
         clientSends(request("GET /api/cart?full=1", "shop.example.org", "Accept: application/json\r\nCookie: session=f00d\r\n")),
         serverSends(reply("200 OK", "application/json", cart)), clientSends(request("GET /static/logo.png", "shop.example.org")),
         serverSends(reply("200 OK", "image/png", picture())),
         clientSends(request("POST /api/orders", "shop.example.org", "Content-Type: application/json\r\n", R"({"cart":7,"note":"it's urgent"})")),
         serverSends(reply("201 Created", "application/json", R"({"order":4711})", "Location: /api/orders/4711\r\n")),
         clientSends(request("GET /old-page", "shop.example.org")), serverSends(reply("404 Not Found", "text/plain", "No such page.\n"))});
    const TLSSession closed = runTLS({.version = 0x0303, .serverName = "mail.example.net", .seed = 2},
                                     {clientSends(request("GET /inbox", "mail.example.net")), serverSends(reply("200 OK", "text/plain", "3 messages\n"))});
    const TLSSession late = runTLS({.serverName = "late.example.com", .seed = 3}, {clientSends("a"), serverSends("b")});

    TCPConversation plain(at(50'003, "198.51.100.80", 80, 0.4));
    plain.open();
    plain.send(Direction::clientToServer,
               Data::fromText(request("GET /<b>bold</b>", "plain.example.com", "X-Trick: \xe2\x80\xae" "evil\x1b[31m <img src=x>\r\n")));
    plain.send(Direction::serverToClient, Data::fromText(reply("200 OK", "text/plain; charset=iso-8859-1", "caf\xe9\tand \x1b[2Jmore\n")));
    plain.send(Direction::clientToServer, Data::fromText(request("GET /data.bin", "plain.example.com")));
    plain.send(Direction::serverToClient, Data::fromText(reply("200 OK", "application/octet-stream", std::string("\0\1\2\xff", 4))));
    plain.send(Direction::clientToServer, Data::fromText(request("GET /never-answered", "plain.example.com")));
    plain.close();
    TCPConversation unknown(at(50'005, "203.0.113.9", 7'000, 0.9));
    unknown.open();
    unknown.send(Direction::clientToServer, Data::fromText("\x01\x02strange protocol\xff"));
    unknown.close();

    std::vector<PlannedSegment> cut = tcpSegments(late.flights, at(50'004, "203.0.113.5", 443, 0.7));
    cut.erase(cut.begin(), cut.begin() + 6);
    const auto segments = merged({tcpSegments(shop.flights, at(50'001, "203.0.113.10", 443, 0)),
                                  tcpSegments(closed.flights, at(50'002, "198.51.100.25", 443, 0.2)), plain.segments, cut, unknown.segments});
    capture = QString::fromStdString(directory.write("browsing.pcap", pcapFile(packets(segments))));
    keyLog = QString::fromStdString(directory.write("shop.keys", shop.keyLog));
    otherKeyLog = QString::fromStdString(directory.write("mail.keys", closed.keyLog));
}

QString manyRequests(const TempDirectory& directory, int count)
{
    TCPConversation conversation({.segmentSize = 60'000, .acknowledges = false});
    conversation.open();
    std::string asked, answered;
    constexpr int atOnce = 500;
    for (int i = 0; i < count; ++i) {
        asked += request("GET /" + std::to_string(i), "h");
        answered += reply("200 OK", "text/plain", "x");
        if (i % atOnce != atOnce - 1 && i + 1 != count) continue;
        conversation.send(Direction::clientToServer, Data::fromText(std::exchange(asked, {})));
        conversation.send(Direction::serverToClient, Data::fromText(std::exchange(answered, {})));
    }
    return QString::fromStdString(directory.write("many.pcap", pcapFile(packets(conversation.segments))));
}

}  // namespace sealscope::desktop
