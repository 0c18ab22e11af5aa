// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/Hex.h"

#include <string_view>
#include <vector>

// TLS on the wire, put together field by field (RFC 8446 §4 and §5, RFC 5246 §6 and §7).
namespace sealscope::wire {

/// A number of `width` bytes, most significant first.
inline Data number(std::int64_t value, int width)
{
    std::vector<std::uint8_t> bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    return Data(std::move(bytes));
}

/// Bytes behind their own length of `width` bytes.
inline Data counted(int width, const Data& bytes) { return joined({number(bytes.size(), width), bytes}); }

inline Data zeros(std::int64_t count) { return Data(std::vector<std::uint8_t>(static_cast<std::size_t>(count))); }

inline Data record(std::uint8_t contentType, const Data& body, std::uint16_t version = 0x0303)
{
    return joined({Data{contentType}, number(version, 2), counted(2, body)});
}

/// A handshake message with its header.
inline Data message(std::uint8_t handshakeType, const Data& body) { return joined({Data{handshakeType}, counted(3, body)}); }

inline Data extension(std::uint16_t type, const Data& data) { return joined({number(type, 2), counted(2, data)}); }

inline Data serverNameExtension(std::string_view name)
{
    return extension(0, counted(2, joined({Data{0}, counted(2, Data::fromText(name))})));
}

inline Data alpnExtension(const std::vector<Data>& protocols)
{
    std::vector<Data> entries;
    for (const Data& protocol : protocols) entries.push_back(counted(1, protocol));
    return extension(16, counted(2, joined(entries)));
}

inline Data supportedVersionsExtension(const std::vector<std::uint16_t>& versions)
{
    std::vector<Data> entries;
    for (const std::uint16_t version : versions) entries.push_back(number(version, 2));
    return extension(43, counted(1, joined(entries)));
}

inline Data suites(const std::vector<std::uint16_t>& codePoints)
{
    std::vector<Data> entries;
    for (const std::uint16_t suite : codePoints) entries.push_back(number(suite, 2));
    return counted(2, joined(entries));
}

/// Legacy version, a random of bytes 0x11 and a session identifier of bytes 0x22: how both hellos begin.
inline Data helloStart(std::uint16_t version = 0x0303, std::int64_t sessionIDLength = 0)
{
    return joined({number(version, 2), Data(std::vector<std::uint8_t>(32, 0x11)),
                   counted(1, Data(std::vector<std::uint8_t>(static_cast<std::size_t>(sessionIDLength), 0x22)))});
}

/// The body of a Client Hello with null compression, and without an extension list when there are none.
inline Data clientHello(const Data& start, const std::vector<std::uint16_t>& codePoints, const std::vector<Data>& extensions)
{
    return joined({start, suites(codePoints), hex("01 00"), extensions.empty() ? Data() : counted(2, joined(extensions))});
}

/// A TLS 1.3 browser's Client Hello in its record: 517 bytes with 17 suites and 12 extensions, the last of them padding.
inline Data browserClientHello()
{
    const std::vector<std::uint16_t> offered{0x1A1A, 0x1301, 0x1302, 0x1303, 0xC02B, 0xC02F, 0xC02C, 0xC030, 0xCCA9,
                                             0xCCA8, 0xC013, 0xC014, 0x009C, 0x009D, 0x002F, 0x0035, 0x00FF};
    std::vector<Data> extensions{
        serverNameExtension("www.example.org"),
        extension(0x0017, {}),
        extension(0xFF01, hex("00")),
        extension(10, hex("0008 2A2A 001D 0017 0018")),
        extension(11, hex("01 00")),
        extension(35, {}),
        alpnExtension({Data::fromText("h2"), Data::fromText("http/1.1")}),
        extension(13, hex("0010 0403 0804 0401 0503 0805 0501 0806 0601")),
        extension(51, joined({hex("0024 001D 0020"), patternBytes(32)})),
        extension(45, hex("01 01")),
        supportedVersionsExtension({0x0304, 0x0303}),
    };
    const Data start = helloStart(0x0303, 32);
    const std::int64_t missing = 517 - 9 - clientHello(start, offered, extensions).size() - 4;
    extensions.push_back(extension(21, zeros(missing)));
    return record(22, message(1, clientHello(start, offered, extensions)), 0x0301);
}

}  // namespace sealscope::wire
