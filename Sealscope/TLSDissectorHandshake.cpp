// SPDX-License-Identifier: Apache-2.0
// Handshake messages and both hellos. Offsets inside a hello count from its body, those of messages and extensions in the
// caller's coordinates, which a base offset gives.
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "platform/UTF8.h"

#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t randomOffset = 2;
constexpr std::int64_t randomLength = 32;
constexpr std::int64_t sessionIDOffset = 34;  ///< of its length byte

/// Where the fields of a Client Hello body lie.
struct ClientHelloLayout {
    std::int64_t sessionIDLength = 0;
    std::int64_t cipherSuitesOffset = 0;
    std::int64_t cipherBytes = 0;
    std::int64_t cipherSuitesEnd = 0;
    std::int64_t compressionLength = 0;
    std::int64_t extensionsOffset = 0;
};

std::optional<ClientHelloLayout> layoutOfClientHello(DataView body)
{
    if (body.size() < 35) return std::nullopt;
    ClientHelloLayout layout{.sessionIDLength = body[sessionIDOffset]};
    if (body.size() < layout.sessionIDLength + 37) return std::nullopt;
    layout.cipherSuitesOffset = layout.sessionIDLength + 35;
    layout.cipherBytes = body.u16(layout.cipherSuitesOffset);
    layout.cipherSuitesEnd = std::min(body.size(), layout.cipherSuitesOffset + 2 + layout.cipherBytes);
    if (layout.cipherSuitesEnd < body.size()) layout.compressionLength = body[layout.cipherSuitesEnd] + 1;
    layout.extensionsOffset = layout.cipherSuitesEnd + layout.compressionLength;
    return layout;
}

/// Position of an extension's data within the hello body; nothing when the body does not hold `count` bytes there.
std::optional<std::int64_t> localOffset(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset, std::int64_t count)
{
    const std::int64_t local = extensionBodyOffset - baseOffset;
    return body.holds(local, count) ? std::optional(local) : std::nullopt;
}

/// The host name of a server_name extension (RFC 6066 §3), as a view of the body's bytes. The first entry of the list is read, and
/// the body alone bounds it: a wrong list length hides no name.
std::optional<std::string_view> hostName(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset)
{
    const auto local = localOffset(body, extensionBodyOffset, baseOffset, 5);
    if (!local || body[*local + 2] != 0) return std::nullopt;
    const std::int64_t length = body.u16(*local + 3);
    if (!body.holds(*local + 5, length)) return std::nullopt;
    const DataView name = body.sub(*local + 5, length);
    return utf8::isWellFormed(name) ? std::optional(name.text()) : std::nullopt;
}

/// The two-byte values that lie wholly between two offsets of the body.
std::vector<std::uint16_t> values(DataView body, std::int64_t offset, std::int64_t end)
{
    std::vector<std::uint16_t> list;
    list.reserve(static_cast<std::size_t>(std::max<std::int64_t>(end - offset, 0) / 2));
    for (; end - offset >= 2; offset += 2) list.push_back(body.u16(offset));
    return list;
}

const TLSExtension* firstOf(TLSExtensionType type, const std::vector<TLSExtension>& extensions)
{
    const auto found = std::ranges::find(extensions, std::to_underlying(type), &TLSExtension::extType);
    return found == extensions.end() ? nullptr : &*found;
}

}  // namespace

std::vector<TLSHandshakeMessage> TLSDissector::parseHandshakeMessages(DataView body, std::int64_t baseOffset)
{
    std::vector<TLSHandshakeMessage> messages;
    forEachHandshakeMessage(body, baseOffset, [&](const TLSHandshakeMessage& message) {
        messages.push_back(message);
        return true;
    });
    return messages;
}

std::optional<ClientHelloInfo> TLSDissector::parseClientHello(DataView body, std::int64_t baseOffset)
{
    const auto layout = layoutOfClientHello(body);
    if (!layout) return std::nullopt;
    ClientHelloInfo hello{.legacyVersion = body.u16(0),
                          .clientRandom = Data(body.sub(randomOffset, randomLength)),
                          .cipherSuites = values(body, layout->cipherSuitesOffset + 2, layout->cipherSuitesEnd),
                          .extensions = parseExtensions(body.from(layout->extensionsOffset), baseOffset + layout->extensionsOffset),
                          .sessionIDLength = layout->sessionIDLength,
                          .cipherBytes = layout->cipherBytes,
                          .cipherSuitesOffset = layout->cipherSuitesOffset,
                          .compressionOffset = layout->cipherSuitesEnd,
                          .compressionLength = layout->compressionLength,
                          .extensionsOffset = layout->extensionsOffset,
                          .bodyBaseOffset = baseOffset};
    if (const auto name = clientHelloServerName(body)) hello.serverName = *name;
    if (const auto* extension = firstOf(TLSExtensionType::alpn, hello.extensions)) {
        hello.alpnProtocols = parseALPN(body, extension->bodyOffset, baseOffset);
    }
    if (const auto* extension = firstOf(TLSExtensionType::supportedVersions, hello.extensions)) {
        hello.supportedVersions = parseSupportedVersions(body, extension->bodyOffset, baseOffset);
    }
    return hello;
}

bool TLSDissector::isClientHello(DataView body) { return layoutOfClientHello(body).has_value(); }

std::optional<std::string_view> TLSDissector::clientHelloServerName(DataView body)
{
    const auto layout = layoutOfClientHello(body);
    if (!layout) return std::nullopt;
    std::optional<std::string_view> name;
    forEachExtension(body.from(layout->extensionsOffset), layout->extensionsOffset, [&](const TLSExtension& extension) {
        if (extension.extType != std::to_underlying(TLSExtensionType::serverName)) return true;
        name = hostName(body, extension.bodyOffset, 0);
        return false;
    });
    return name;
}

std::optional<ServerHelloInfo> TLSDissector::parseServerHello(DataView body, std::int64_t baseOffset)
{
    if (body.size() < 38) return std::nullopt;
    const std::int64_t sessionIDLength = body[sessionIDOffset];
    if (body.size() < sessionIDLength + 38) return std::nullopt;
    // Suite (2) and compression method (1) lie between the session ID and the extensions.
    const std::int64_t cipherSuiteOffset = sessionIDLength + 35;
    const std::int64_t extensionsOffset = cipherSuiteOffset + 3;
    ServerHelloInfo hello{.legacyVersion = body.u16(0),
                          .serverRandom = Data(body.sub(randomOffset, randomLength)),
                          .cipherSuite = body.u16(cipherSuiteOffset),
                          .extensions = parseExtensions(body.from(extensionsOffset), baseOffset + extensionsOffset),
                          .sessionIDLength = sessionIDLength,
                          .cipherSuiteOffset = cipherSuiteOffset};
    if (const auto* extension = firstOf(TLSExtensionType::supportedVersions, hello.extensions)) {
        if (const auto local = localOffset(body, extension->bodyOffset, baseOffset, 2)) hello.supportedVersion = body.u16(*local);
    }
    return hello;
}

std::vector<TLSExtension> TLSDissector::parseExtensions(DataView bytes, std::int64_t baseOffset)
{
    std::vector<TLSExtension> extensions;
    forEachExtension(bytes, baseOffset, [&](const TLSExtension& extension) {
        extensions.push_back(extension);
        return true;
    });
    return extensions;
}

std::optional<std::string> TLSDissector::parseServerName(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset)
{
    return hostName(body, extensionBodyOffset, baseOffset).transform([](std::string_view name) { return std::string(name); });
}

std::vector<std::string> TLSDissector::parseALPN(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset)
{
    std::vector<std::string> protocols;
    const auto local = localOffset(body, extensionBodyOffset, baseOffset, 2);
    if (!local) return protocols;
    const std::int64_t listEnd = std::min(body.size(), *local + 2 + body.u16(*local));
    for (std::int64_t offset = *local + 2; offset < listEnd;) {
        const std::int64_t next = offset + 1 + body[offset];
        if (next > listEnd) break;
        if (auto protocol = utf8::decoded(body.sub(offset + 1, body[offset]))) protocols.push_back(*std::move(protocol));
        offset = next;
    }
    return protocols;
}

std::vector<std::uint16_t> TLSDissector::parseSupportedVersions(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset)
{
    const auto local = localOffset(body, extensionBodyOffset, baseOffset, 1);
    if (!local) return {};
    return values(body, *local + 1, std::min(body.size(), *local + 1 + body[*local]));
}

}  // namespace sealscope
