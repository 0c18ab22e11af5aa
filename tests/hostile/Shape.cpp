// SPDX-License-Identifier: Apache-2.0
#include "tests/hostile/Shape.h"

#include "harness/TempDirectory.h"

#include <algorithm>
#include <ostream>

namespace sealscope::hostile {

namespace {

void putLittle32(Bytes& bytes, std::uint64_t value)
{
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

/// With a length of so many bytes in front.
Bytes counted(const Bytes& bytes, int lengthBytes)
{
    Bytes all;
    for (int i = lengthBytes - 1; i >= 0; --i) put8(all, bytes.size() >> (8 * i));
    return put(all, bytes);
}

}  // namespace

Bytes& put8(Bytes& bytes, std::uint64_t value)
{
    bytes.push_back(static_cast<std::uint8_t>(value));
    return bytes;
}
Bytes& put16(Bytes& bytes, std::uint64_t value) { return put8(put8(bytes, value >> 8), value); }
Bytes& put24(Bytes& bytes, std::uint64_t value) { return put16(put8(bytes, value >> 16), value); }
Bytes& put32(Bytes& bytes, std::uint64_t value) { return put16(put16(bytes, value >> 16), value); }
Bytes& put(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}
Bytes& put(Bytes& bytes, std::string_view more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

Bytes repeated(const Bytes& bytes, std::int64_t count)
{
    Bytes all;
    all.reserve(bytes.size() * static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) put(all, bytes);
    return all;
}

std::string times(std::string_view text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

Attack::Attack(std::uint32_t linkType)
{
    putLittle32(bytes_, 0xA1B2C3D4);
    putLittle32(bytes_, 4 << 16 | 2);
    for (int i = 0; i < 2; ++i) putLittle32(bytes_, 0);
    putLittle32(bytes_, 0x7FFF'FFFF);
    putLittle32(bytes_, linkType);
}

void Attack::frame(const Bytes& bytes)
{
    putLittle32(bytes_, 1'700'000'000 + static_cast<std::uint64_t>(packets_) / 1'000'000);
    putLittle32(bytes_, static_cast<std::uint64_t>(packets_) % 1'000'000);
    putLittle32(bytes_, bytes.size());
    putLittle32(bytes_, bytes.size());
    put(bytes_, bytes);
    ++packets_;
}

Bytes Attack::packet(std::int64_t connection, const Segment& segment, const Bytes& payload)
{
    Bytes ip;
    const std::size_t length = 40 + segment.options.size() + payload.size();
    put16(ip, 0x4500);
    put16(ip, length > 0xFFFF ? 0 : length);  // 0 is what segmentation offload leaves
    put32(ip, 0);
    put32(ip, 0x4006'0000);
    const auto client = static_cast<std::uint64_t>(0x0A00'0000 | (connection >> 8)), server = std::uint64_t{0xC000'0201};
    const auto port = static_cast<std::uint64_t>(40'000 + (connection & 0xFF));
    put32(ip, segment.isFromServer ? server : client);
    put32(ip, segment.isFromServer ? client : server);
    put16(ip, segment.isFromServer ? 443 : port);
    put16(ip, segment.isFromServer ? port : 443);
    put32(ip, segment.sequence);
    put32(ip, 0);
    put8(ip, (20 + segment.options.size()) / 4 << 4);
    put8(ip, segment.flags);
    put16(ip, 0xFFFF);
    put32(ip, 0);
    return put(put(ip, segment.options), payload);
}

void Attack::segment(std::int64_t connection, const Segment& segment, const Bytes& payload)
{
    next(connection, false);
    next(connection, true);
    frame(packet(connection, segment, payload));
}

std::uint32_t& Attack::next(std::int64_t connection, bool isFromServer)
{
    return next_.try_emplace({connection, isFromServer}, isFromServer ? 2'001 : 1'001).first->second;
}

void Attack::open(std::int64_t connection)
{
    segment(connection, {.sequence = 1'000, .flags = 0x02});
    segment(connection, {.isFromServer = true, .sequence = 2'000, .flags = 0x12});
}

void Attack::send(std::int64_t connection, bool isFromServer, const Bytes& payload, std::int64_t segmentSize)
{
    for (std::size_t offset = 0; offset < payload.size(); offset += static_cast<std::size_t>(segmentSize)) {
        const std::size_t count = std::min(static_cast<std::size_t>(segmentSize), payload.size() - offset);
        const auto begin = payload.begin() + static_cast<std::ptrdiff_t>(offset);
        segment(connection, {.isFromServer = isFromServer, .sequence = next(connection, isFromServer)},
                Bytes(begin, begin + static_cast<std::ptrdiff_t>(count)));
        next(connection, isFromServer) += static_cast<std::uint32_t>(count);
    }
}

void Attack::skip(std::int64_t connection, bool isFromServer, std::int64_t count)
{
    next(connection, isFromServer) += static_cast<std::uint32_t>(count);
}

void PrintTo(const Shape& shape, std::ostream* stream) { *stream << shape.name; }

Made save(const std::filesystem::path& folder, const Bytes& bytes, Made made)
{
    writeFile(folder / "capture", DataView(bytes));
    return made;
}
Made save(const std::filesystem::path& folder, const Attack& attack)
{
    return save(folder, attack.bytes(), {.packets = attack.packets(), .connections = attack.connections()});
}

Bytes record(std::uint8_t type, const Bytes& body, std::uint16_t version)
{
    Bytes bytes;
    put16(put16(put8(bytes, type), version), body.size());
    return put(bytes, body);
}

Bytes handshake(std::uint8_t type, const Bytes& body)
{
    Bytes bytes;
    put24(put8(bytes, type), body.size());
    return put(bytes, body);
}

Bytes extension(std::uint16_t type, const Bytes& body)
{
    Bytes bytes;
    return put(put16(bytes, type), counted(body, 2));
}

Bytes clientHello(const Bytes& extensions, int suites)
{
    Bytes body, list;
    for (int i = 0; i < suites; ++i) put16(list, 0x1301);
    put16(body, 0x0303);
    put(body, Bytes(32, 7));
    put8(body, 0);
    put(body, counted(list, 2));
    put16(body, 0x0100);
    put(body, counted(extensions, 2));
    return record(22, handshake(1, body));
}

Bytes serverHello(const Bytes& extensions, std::uint16_t suite)
{
    Bytes body, all = extension(43, {3, 4});
    put16(body, 0x0303);
    put(body, Bytes(32, 9));
    put8(body, 0);
    put16(body, suite);
    put8(body, 0);
    put(body, counted(put(all, extensions), 2));
    return record(22, handshake(2, body));
}

Bytes serverName(std::string_view name)
{
    Bytes text, entry{0};
    put(entry, counted(put(text, name), 2));
    return extension(0, counted(entry, 2));
}

}  // namespace sealscope::hostile
