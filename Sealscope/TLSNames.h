// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Bundle.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// Record content types (RFC 8446 §5.1, RFC 5246 §6.2.1).
enum class TLSContentType : std::uint8_t { changeCipherSpec = 20, alert = 21, handshake = 22, applicationData = 23 };

/// Handshake message types that have a name (RFC 8446 §4, RFC 5246 §7.4).
enum class TLSHandshakeType : std::uint8_t {
    clientHello = 1,
    serverHello = 2,
    newSessionTicket = 4,
    encryptedExtensions = 8,
    certificate = 11,
    serverKeyExchange = 12,
    certificateRequest = 13,
    serverHelloDone = 14,
    certificateVerify = 15,
    clientKeyExchange = 16,
    finished = 20,
};

/// Hello extension types that have a name (RFC 8446 §4.2).
enum class TLSExtensionType : std::uint16_t {
    serverName = 0,
    supportedGroups = 10,
    signatureAlgorithms = 13,
    alpn = 16,
    supportedVersions = 43,
    keyShare = 51,
};

// The code point as one of the known cases; nothing for any other.
std::optional<TLSContentType> contentTypeOf(std::uint8_t codePoint);
std::optional<TLSHandshakeType> handshakeTypeOf(std::uint8_t codePoint);
std::optional<TLSExtensionType> extensionTypeOf(std::uint16_t codePoint);

/// Table of the plug-in's bundle in which its texts are looked up; a text is its own key.
inline constexpr std::string_view localizationTable = "LocalizableTLS";

/// "TLS 1.2" for 0x0303; "Unknown (0x0200)" for what is no version from SSL 3.0 to TLS 1.3. Not localized.
std::string versionName(std::uint16_t version);
/// The registered name of the best-known suites; "0xC02C" for any other. Not localized.
std::string cipherSuiteName(std::uint16_t suite);
/// "Client Hello" and the like. Not localized.
std::string_view handshakeTypeName(TLSHandshakeType type);
/// "Change Cipher Spec" and the like. Not localized.
std::string_view contentTypeName(TLSContentType type);
/// "Fatal" for level 2, "Warning" for every other. Not localized.
std::string_view alertLevelName(std::uint8_t level);

/// The name of a handshake type where summaries are shown: "Handshake (0x18)" for an unknown one. Not localized.
std::string handshakeSummaryName(std::uint8_t codePoint);

// The three below are localized, with their fallbacks for what has no name.
/// "server_name" and the like; "Extension (0x0017)".
std::string extensionName(std::uint16_t codePoint, const Bundle& bundle);
/// "Unknown (0x18)".
std::string unknownCodePointName(std::uint8_t codePoint, const Bundle& bundle);

}  // namespace sealscope
