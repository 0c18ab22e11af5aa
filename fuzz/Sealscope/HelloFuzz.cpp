// SPDX-License-Identifier: Apache-2.0
// A message body, read as both hellos.
#include "Sealscope/TLSDissector.h"
#include "fuzz/Require.h"
#include "platform/UTF8.h"

using namespace sealscope;

namespace {

constexpr std::int64_t base = 1'000;  ///< any, so that body offsets and the caller's are told apart

void checkExtensions(const std::vector<TLSExtension>& extensions, std::int64_t start, DataView body)
{
    std::int64_t end = start + 2;
    for (const TLSExtension& extension : extensions) {
        require(extension.bodyOffset == base + end + 4, "extensions touch");
        end += 4 + extension.length;
        require(body.u16(extension.bodyOffset - base - 4) == extension.extType, "an extension is where it says");
    }
    require(extensions.empty() || end <= body.size(), "extensions lie in the body");
}

const TLSExtension* first(const std::vector<TLSExtension>& extensions, std::uint16_t type)
{
    const auto found = std::ranges::find(extensions, type, &TLSExtension::extType);
    return found == extensions.end() ? nullptr : &*found;
}

void checkClientHello(DataView body)
{
    const auto hello = TLSDissector::parseClientHello(body, base);
    require(hello.has_value() == TLSDissector::isClientHello(body), "both say whether it is a hello");
    const auto name = TLSDissector::clientHelloServerName(body);
    if (!hello) {
        require(!name, "no hello, no name");
        return;
    }
    require(hello->bodyBaseOffset == base, "the base offset is kept");
    require(hello->clientRandom == body.sub(2, 32), "the random is the body's");
    require(hello->cipherSuitesOffset == 35 + hello->sessionIDLength, "suites follow the session identifier");
    const std::int64_t suites = 2 * static_cast<std::int64_t>(hello->cipherSuites.size());
    require(suites <= hello->cipherBytes && hello->cipherSuitesOffset + 2 + suites <= hello->compressionOffset,
            "suites end with their list");
    require(hello->compressionOffset <= body.size(), "the suite list ends in the body");
    require((hello->compressionLength == 0) == (hello->compressionOffset == body.size()), "nothing follows only at the end");
    require(hello->extensionsOffset == hello->compressionOffset + hello->compressionLength, "extensions follow the compression methods");
    checkExtensions(hello->extensions, hello->extensionsOffset, body);
    require(name == hello->serverName, "both find the same name");
    require(first(hello->extensions, 0) || !name, "a name needs its extension");
    require(first(hello->extensions, 16) || hello->alpnProtocols.empty(), "protocols need their extension");
    require(first(hello->extensions, 43) || hello->supportedVersions.empty(), "versions need their extension");
    std::int64_t textBytes = 0;
    for (const std::string& protocol : hello->alpnProtocols) {
        require(utf8::isWellFormed(DataView(protocol)), "a protocol is text");
        textBytes += 1 + static_cast<std::int64_t>(protocol.size());
    }
    require(textBytes <= body.size(), "protocols lie in the body");
}

void checkServerHello(DataView body)
{
    const auto hello = TLSDissector::parseServerHello(body, base);
    if (!hello) return;
    require(hello->serverRandom == body.sub(2, 32), "the random is the body's");
    require(hello->cipherSuiteOffset == 35 + hello->sessionIDLength, "the suite follows the session identifier");
    require(hello->cipherSuite == body.u16(hello->cipherSuiteOffset), "the suite is the body's");
    checkExtensions(hello->extensions, 38 + hello->sessionIDLength, body);
    require(first(hello->extensions, 43) || !hello->supportedVersion, "a version needs its extension");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView body(data, static_cast<std::int64_t>(size));
    checkClientHello(body);
    checkServerHello(body);
    // The readers of single extensions, anywhere: the first two bytes say where.
    const std::int64_t anywhere = body.u16(0) - 16;
    TLSDissector::parseServerName(body, base + anywhere, base);
    TLSDissector::parseALPN(body, base + anywhere, base);
    TLSDissector::parseSupportedVersions(body, base + anywhere, base);
    return 0;
}
