// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/HelloFingerprints.h"

#include "Sealscope/TLSDissector.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using CodePoints = std::vector<std::uint16_t>;

// Extensions whose contents count (RFC 8422 §5.1.2 for the point formats).
constexpr std::uint16_t serverName = 0, supportedGroups = 10, pointFormats = 11, signatureAlgorithms = 13, alpn = 16;

/// Code points that clients make up so that servers get used to unknown ones (RFC 8701): 0x0A0A, 0x1A1A … 0xFAFA. They differ from
/// hello to hello.
bool isGREASE(std::uint16_t codePoint) { return (codePoint & 0x0F0F) == 0x0A0A && codePoint >> 8 == (codePoint & 0xFF); }

CodePoints withoutGREASE(CodePoints codePoints)
{
    std::erase_if(codePoints, isGREASE);
    return codePoints;
}

CodePoints typesOf(const std::vector<TLSExtension>& extensions)
{
    CodePoints types;
    std::ranges::transform(extensions, std::back_inserter(types), &TLSExtension::extType);
    return types;
}

/// The data of the first extension of a type; empty when there is none.
DataView dataOf(std::uint16_t type, const ClientHelloInfo& hello, DataView body)
{
    const auto found = std::ranges::find(hello.extensions, type, &TLSExtension::extType);
    return found == hello.extensions.end() ? DataView() : body.sub(found->bodyOffset, found->length);
}

/// A list of 16-bit code points behind its length in bytes.
CodePoints codePointsOf(DataView data)
{
    CodePoints codePoints;
    const DataView list = data.sub(2, data.u16(0));
    for (std::int64_t at = 0; at + 2 <= list.size(); at += 2) codePoints.push_back(list.u16(at));
    return withoutGREASE(std::move(codePoints));
}

std::string hexDigest(HashFunction hash, std::string_view text) { return hexText(viewOf(digest(hash, {DataView(text)}))); }

/// The first 12 digits of a list's SHA-256; zeros for nothing.
std::string shortDigest(const std::string& list)
{
    constexpr std::size_t digits = 12;
    return list.empty() ? std::string(digits, '0') : hexDigest(HashFunction::sha256, list).substr(0, digits);
}

std::string hexList(const CodePoints& codePoints) { return fmt::format("{:04x}", fmt::join(codePoints, ",")); }

std::string sortedHexList(CodePoints codePoints)
{
    std::ranges::sort(codePoints);
    return hexList(codePoints);
}

std::string_view versionDigits(const ClientHelloInfo& hello)
{
    const CodePoints offered = withoutGREASE(hello.supportedVersions);
    const auto highest = std::ranges::max_element(offered);
    switch (highest == offered.end() ? hello.legacyVersion : *highest) {
    case 0x0304: return "13";
    case 0x0303: return "12";
    case 0x0302: return "11";
    case 0x0301: return "10";
    case 0x0300: return "s3";
    case 0x0002: return "s2";
    default: return "00";
    }
}

/// First and last character of the first protocol that the client offers; of its hexadecimal form where one of them is neither letter
/// nor digit.
std::string protocolCharacters(DataView data)
{
    const DataView name = data.sub(3, data.u8(2));
    if (name.isEmpty()) return "00";
    const auto isAlphanumeric = [](std::uint8_t byte) {
        return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
    };
    const std::uint8_t first = name[0], last = name[name.size() - 1];
    if (isAlphanumeric(first) && isAlphanumeric(last)) return {static_cast<char>(first), static_cast<char>(last)};
    const std::string digits = hexText(name);
    return {digits.front(), digits.back()};
}

}  // namespace

std::optional<std::string> HelloFingerprints::ja3(DataView clientHello)
{
    const auto hello = TLSDissector::parseClientHello(clientHello, 0);
    if (!hello) return std::nullopt;
    const DataView formatList = dataOf(pointFormats, *hello, clientHello);
    const DataView formats = formatList.sub(1, formatList.u8(0));
    return hexDigest(HashFunction::md5,
                     fmt::format("{},{},{},{},{}", hello->legacyVersion, fmt::join(withoutGREASE(hello->cipherSuites), "-"),
                                 fmt::join(withoutGREASE(typesOf(hello->extensions)), "-"),
                                 fmt::join(codePointsOf(dataOf(supportedGroups, *hello, clientHello)), "-"), fmt::join(formats, "-")));
}

std::optional<std::string> HelloFingerprints::ja3s(DataView serverHello)
{
    const auto hello = TLSDissector::parseServerHello(serverHello, 0);
    if (!hello) return std::nullopt;
    return hexDigest(HashFunction::md5, fmt::format("{},{},{}", hello->legacyVersion, hello->cipherSuite,
                                                    fmt::join(typesOf(hello->extensions), "-")));
}

std::optional<std::string> HelloFingerprints::ja4(DataView clientHello)
{
    const auto hello = TLSDissector::parseClientHello(clientHello, 0);
    if (!hello) return std::nullopt;
    constexpr std::size_t mostCounted = 99;
    const CodePoints suites = withoutGREASE(hello->cipherSuites);
    CodePoints extensions = withoutGREASE(typesOf(hello->extensions));
    const bool isNamed = std::ranges::find(extensions, serverName) != extensions.end();
    const std::string head = fmt::format("t{}{}{:02}{:02}{}", versionDigits(*hello), isNamed ? 'd' : 'i', std::min(suites.size(), mostCounted),
                                         std::min(extensions.size(), mostCounted), protocolCharacters(dataOf(alpn, *hello, clientHello)));
    // Whom a client asks for, and what it wants to speak there, changes from connection to connection; the first part has it.
    std::erase_if(extensions, [](std::uint16_t type) { return type == serverName || type == alpn; });
    std::string offered = sortedHexList(std::move(extensions));
    if (const CodePoints algorithms = codePointsOf(dataOf(signatureAlgorithms, *hello, clientHello)); !algorithms.empty())
        offered += '_' + hexList(algorithms);
    return fmt::format("{}_{}_{}", head, shortDigest(sortedHexList(suites)), shortDigest(offered));
}

}  // namespace sealscope
