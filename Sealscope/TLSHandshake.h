// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// One handshake message header (RFC 8446 §4, RFC 5246 §7.4). Offsets are in the caller's coordinates.
struct TLSHandshakeMessage {
    static constexpr std::int64_t headerLength = 4;  ///< type (1), length (3)

    std::uint8_t handshakeType = 0;
    std::int64_t length = 0;      ///< body bytes that the header announces
    std::int64_t bodyOffset = 0;  ///< of the first byte after the header
    bool isTruncated = false;     ///< fewer than length bytes follow the header
    bool operator==(const TLSHandshakeMessage&) const = default;
};

/// One extension of a hello (RFC 8446 §4.2).
struct TLSExtension {
    std::uint16_t extType = 0;
    std::int64_t bodyOffset = 0;  ///< of its data, after the 4-byte header, in the coordinates of the hello's base offset
    std::int64_t length = 0;      ///< bytes of data
    bool operator==(const TLSExtension&) const = default;
};

/// The fields of a Client Hello (RFC 8446 §4.1.2). Offsets are relative to the message body unless they say otherwise.
struct ClientHelloInfo {
    std::uint16_t legacyVersion = 0;
    Data clientRandom;  ///< 32 bytes
    std::vector<std::uint16_t> cipherSuites;
    std::optional<std::string> serverName;         ///< of the first server_name extension (RFC 6066 §3)
    std::vector<std::string> alpnProtocols;        ///< of the first ALPN extension (RFC 7301 §3.1)
    std::vector<std::uint16_t> supportedVersions;  ///< of the first supported_versions extension (RFC 8446 §4.2.1)
    std::vector<TLSExtension> extensions;          ///< all that fit completely
    std::int64_t sessionIDLength = 0;
    std::int64_t cipherBytes = 0;         ///< length of the suite list as declared
    std::int64_t cipherSuitesOffset = 0;  ///< of the suite list's 2-byte length
    std::int64_t compressionOffset = 0;   ///< of the compression list's length byte: where the suite list ends within the body
    std::int64_t compressionLength = 0;   ///< length byte included; 0 when the body ends before it
    std::int64_t extensionsOffset = 0;    ///< of the 2-byte extensions length
    std::int64_t bodyBaseOffset = 0;      ///< the body's start in the caller's coordinates
};

/// The fields of a Server Hello (RFC 8446 §4.1.3). Offsets are relative to the message body.
struct ServerHelloInfo {
    std::uint16_t legacyVersion = 0;
    Data serverRandom;  ///< 32 bytes
    std::uint16_t cipherSuite = 0;
    std::optional<std::uint16_t> supportedVersion;  ///< selected through supported_versions (RFC 8446 §4.2.1)
    std::vector<TLSExtension> extensions;
    std::int64_t sessionIDLength = 0;
    std::int64_t cipherSuiteOffset = 0;
};

}  // namespace sealscope
