// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSApplicationProtocol.h"

#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"

#include <algorithm>
#include <utility>

namespace sealscope {

namespace {

constexpr std::uint16_t alpn = std::to_underlying(TLSExtensionType::alpn);

}  // namespace

std::optional<std::string> TLSApplicationProtocol::ofExtension(DataView data)
{
    std::vector<std::string> names = TLSDissector::parseALPN(data, 0, 0);
    return names.empty() ? std::nullopt : std::optional(std::move(names.front()));
}

std::optional<std::string> TLSApplicationProtocol::ofEncryptedExtensions(DataView body)
{
    std::optional<std::string> protocol;
    forEachExtension(body, 0, [&](const TLSExtension& extension) {
        if (extension.extType != alpn) return true;
        protocol = ofExtension(body.sub(extension.bodyOffset, extension.length));
        return false;
    });
    return protocol;
}

std::optional<std::string> TLSApplicationProtocol::negotiated(const TCPStream& stream, const TLSKeyLog& keyLog)
{
    const auto hello = TLSStreamDecryption::firstServerHello(stream.serverToClientData);
    if (!hello) return std::nullopt;
    const auto extension = std::ranges::find(hello->extensions, alpn, &TLSExtension::extType);
    if (extension != hello->extensions.end()) return ofExtension(stream.serverToClientData.slice(extension->bodyOffset, extension->length));

    const auto context = TLSStreamDecryption::context(stream);
    if (!context || !context->isTLS13) return std::nullopt;
    auto walk = TLSStreamDecryption::directionWalk(stream.serverToClientData, TCPSegment::Direction::serverToClient, *context, keyLog);
    if (!walk || walk->next() != TLSDirectionWalk::Step::opened) return std::nullopt;
    if (walk->innerType() != std::to_underlying(TLSContentType::handshake)) return std::nullopt;
    // The first message after the server hello (RFC 8446 §4.3.1), and so short that every peer sends it in one record.
    std::optional<std::string> protocol;
    const DataView content = walk->plaintext();
    forEachHandshakeMessage(content, 0, [&](const TLSHandshakeMessage& message) {
        if (message.handshakeType == std::to_underlying(TLSHandshakeType::encryptedExtensions))
            protocol = ofEncryptedExtensions(content.sub(message.bodyOffset, message.length));
        return false;
    });
    return protocol;
}

}  // namespace sealscope
