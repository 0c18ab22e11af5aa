// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSNames.h"

#include "platform/LocalizedFormat.h"

#include <fmt/compile.h>

namespace sealscope {

namespace {

/// A format in the user's language, filled with a code point.
std::string localized(std::string_view format, std::uint64_t codePoint, const Bundle& bundle)
{
    return fillLocalizedFormat(bundle.localizedString(format, localizationTable), format, {codePoint});
}

/// The registered name of a suite; empty for one that is shown by its number.
std::string_view knownCipherSuiteName(std::uint16_t suite)
{
    switch (suite) {
    case 0x00FF: return "TLS_EMPTY_RENEGOTIATION_INFO_SCSV";
    case 0x1301: return "TLS_AES_128_GCM_SHA256";
    case 0x1302: return "TLS_AES_256_GCM_SHA384";
    case 0x1303: return "TLS_CHACHA20_POLY1305_SHA256";
    case 0xC02B: return "TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256";
    case 0xC02F: return "TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256";
    case 0xC030: return "TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384";
    case 0xCCA8: return "TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256";
    default: return {};
    }
}

std::string_view extensionTypeName(TLSExtensionType type)
{
    switch (type) {
    case TLSExtensionType::serverName: return "server_name";
    case TLSExtensionType::supportedGroups: return "supported_groups";
    case TLSExtensionType::signatureAlgorithms: return "signature_algorithms";
    case TLSExtensionType::alpn: return "ALPN";
    case TLSExtensionType::supportedVersions: return "supported_versions";
    case TLSExtensionType::keyShare: return "key_share";
    }
    return {};
}

}  // namespace

std::optional<TLSContentType> contentTypeOf(std::uint8_t codePoint)
{
    if (codePoint < 20 || codePoint > 23) return std::nullopt;
    return static_cast<TLSContentType>(codePoint);
}

std::optional<TLSHandshakeType> handshakeTypeOf(std::uint8_t codePoint)
{
    const auto type = static_cast<TLSHandshakeType>(codePoint);
    if (handshakeTypeName(type).empty()) return std::nullopt;
    return type;
}

std::optional<TLSExtensionType> extensionTypeOf(std::uint16_t codePoint)
{
    const auto type = static_cast<TLSExtensionType>(codePoint);
    if (extensionTypeName(type).empty()) return std::nullopt;
    return type;
}

std::string versionName(std::uint16_t version)
{
    switch (version) {
    case 0x0300: return "SSL 3.0";
    case 0x0301: return "TLS 1.0";
    case 0x0302: return "TLS 1.1";
    case 0x0303: return "TLS 1.2";
    case 0x0304: return "TLS 1.3";
    default: return fmt::format(FMT_COMPILE("Unknown (0x{:04X})"), version);
    }
}

std::string cipherSuiteName(std::uint16_t suite)
{
    const std::string_view name = knownCipherSuiteName(suite);
    return name.empty() ? fmt::format(FMT_COMPILE("0x{:04X}"), suite) : std::string(name);
}

std::string_view handshakeTypeName(TLSHandshakeType type)
{
    switch (type) {
    case TLSHandshakeType::clientHello: return "Client Hello";
    case TLSHandshakeType::serverHello: return "Server Hello";
    case TLSHandshakeType::newSessionTicket: return "New Session Ticket";
    case TLSHandshakeType::encryptedExtensions: return "Encrypted Extensions";
    case TLSHandshakeType::certificate: return "Certificate";
    case TLSHandshakeType::serverKeyExchange: return "Server Key Exchange";
    case TLSHandshakeType::certificateRequest: return "Certificate Request";
    case TLSHandshakeType::serverHelloDone: return "Server Hello Done";
    case TLSHandshakeType::certificateVerify: return "Certificate Verify";
    case TLSHandshakeType::clientKeyExchange: return "Client Key Exchange";
    case TLSHandshakeType::finished: return "Finished";
    }
    return {};
}

std::string_view contentTypeName(TLSContentType type)
{
    switch (type) {
    case TLSContentType::changeCipherSpec: return "Change Cipher Spec";
    case TLSContentType::alert: return "Alert";
    case TLSContentType::handshake: return "Handshake";
    case TLSContentType::applicationData: return "Application Data";
    }
    return {};
}

std::string_view alertLevelName(std::uint8_t level) { return level == 2 ? "Fatal" : "Warning"; }

std::string handshakeSummaryName(std::uint8_t codePoint)
{
    const auto type = handshakeTypeOf(codePoint);
    return type ? std::string(handshakeTypeName(*type)) : fmt::format(FMT_COMPILE("Handshake (0x{:02X})"), codePoint);
}

std::string extensionName(std::uint16_t codePoint, const Bundle& bundle)
{
    const std::string_view name = extensionTypeName(static_cast<TLSExtensionType>(codePoint));
    if (name.empty()) return localized("Extension (0x%04X)", codePoint, bundle);
    return std::string(bundle.localizedString(name, localizationTable));
}

std::string unknownCodePointName(std::uint8_t codePoint, const Bundle& bundle) { return localized("Unknown (0x%02X)", codePoint, bundle); }

}  // namespace sealscope
