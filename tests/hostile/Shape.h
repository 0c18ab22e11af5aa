// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope::hostile {

using Bytes = std::vector<std::uint8_t>;

/// Appends numbers in network order, and bytes.
Bytes& put8(Bytes& bytes, std::uint64_t value);
Bytes& put16(Bytes& bytes, std::uint64_t value);
Bytes& put24(Bytes& bytes, std::uint64_t value);
Bytes& put32(Bytes& bytes, std::uint64_t value);
Bytes& put(Bytes& bytes, const Bytes& more);
Bytes& put(Bytes& bytes, std::string_view more);
/// `count` copies of one after another.
Bytes repeated(const Bytes& bytes, std::int64_t count);
std::string times(std::string_view text, int count);

/// A capture in the classic format, written as an attacker would: packet by packet, and nothing of it has to be true. A connection is
/// a number; its client is an address of 10.0.0.0/8, its server 192.0.2.1:443.
class Attack {
public:
    explicit Attack(std::uint32_t linkType = 101);

    struct Segment {
        bool isFromServer = false;
        std::uint32_t sequence = 0;
        std::uint8_t flags = 0x18;  ///< PSH and ACK
        Bytes options = {};
    };
    void frame(const Bytes& bytes);
    /// An IPv4 packet with a TCP segment in it.
    static Bytes packet(std::int64_t connection, const Segment& segment, const Bytes& payload);
    void segment(std::int64_t connection, const Segment& segment, const Bytes& payload = {});
    /// The SYNs of both sides; their data begin at 1,001 and 2,001.
    void open(std::int64_t connection);
    /// The next bytes of one side, in segments of a size.
    void send(std::int64_t connection, bool isFromServer, const Bytes& payload, std::int64_t segmentSize = 60'000);
    /// The side goes on as if it had sent so many bytes.
    void skip(std::int64_t connection, bool isFromServer, std::int64_t count);

    const Bytes& bytes() const { return bytes_; }
    std::int64_t packets() const { return packets_; }
    std::int64_t connections() const { return static_cast<std::int64_t>(next_.size()) / 2; }

private:
    std::uint32_t& next(std::int64_t connection, bool isFromServer);

    Bytes bytes_;
    std::int64_t packets_ = 0;
    std::map<std::pair<std::int64_t, bool>, std::uint32_t> next_;
};

/// What a shape has made: what the budget is reckoned by, and how the program is to be run.
struct Made {
    std::int64_t packets = 0;
    std::int64_t connections = 0;
    std::int64_t unpacked = 0;  ///< bytes of a compressed capture once unpacked; 0: it is not compressed
};

/// One way to hurt whoever reads captures.
struct Shape {
    std::string name;
    /// Writes `capture` into a folder, and beside it what `arguments` name.
    std::function<Made(const std::filesystem::path&)> make;
    std::vector<std::string> arguments = {"capture"};     ///< behind the command, in the folder
    std::string keyLog = {};                              ///< of that name in the folder, for commands that take one
    bool isWorkForLong = false;                           ///< long enough that ending it early is worth a look
    std::vector<std::vector<std::string>> commands = {};  ///< empty: every command that reads captures
};
void PrintTo(const Shape& shape, std::ostream* stream);

std::vector<Shape> captureShapes();       ///< files and their formats
std::vector<Shape> packetShapes();        ///< link layers, IP, TCP headers
std::vector<Shape> streamShapes();        ///< sequence numbers, losses, overlaps
std::vector<Shape> recordShapes();        ///< TLS records and what is in them
std::vector<Shape> conversationShapes();  ///< HTTP, HTTP/2 and WebSocket under encryption that opens
std::vector<Shape> reachShapes();         ///< what secrets open, and what they do not
std::vector<Shape> neighbourShapes();     ///< key logs, names of files, settings

/// Writes an attack as `capture` in the folder.
Made save(const std::filesystem::path& folder, const Attack& attack);
Made save(const std::filesystem::path& folder, const Bytes& bytes, Made made);

// Pieces of TLS.
Bytes record(std::uint8_t type, const Bytes& body, std::uint16_t version = 0x0303);
Bytes handshake(std::uint8_t type, const Bytes& body);
Bytes extension(std::uint16_t type, const Bytes& body);
/// Hellos of TLS 1.3, by which a stream is one that could be decrypted.
Bytes clientHello(const Bytes& extensions = {}, int suites = 1);
Bytes serverHello(const Bytes& extensions = {}, std::uint16_t suite = 0x1301);
Bytes serverName(std::string_view name);

}  // namespace sealscope::hostile
