// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/PEMExporter.h"

#include "harness/Certificates.h"
#include "platform/Base64.h"
#include "tests/interpreters/TLSReach/Opened.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

/// The certificates of a PEM text.
std::vector<Data> certificatesOf(std::string text)
{
    constexpr std::string_view begin = "-----BEGIN CERTIFICATE-----\n", end = "-----END CERTIFICATE-----\n";
    std::vector<Data> certificates;
    for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
        at += begin.size();
        std::string body = text.substr(at, text.find(end, at) - at);
        std::erase(body, '\n');
        certificates.push_back(fromBase64(body).value());
    }
    return certificates;
}

TEST(PEMExporter, WritesEveryChainOnceAStream)
{
    const CertificateOptions options{.authorities = 2};
    const std::vector<Data>& chain = CertificateChain::make(options)->certificates;
    std::string text;
    const StreamExporter::Write write = [&](DataView bytes) {
        text += bytes.text();
        return true;
    };
    const auto exporter = pemFormat().create();
    exporter->begin(write);
    std::vector<Data> expected;
    for (const std::uint16_t version : {0x0303, 0x0304, 0x0304}) {
        const TLSSession session = runTLS({.version = version, .serverName = "www.example.org", .certificates = {options}}, {clientSends("x")});
        TCPStream stream = vectorStream(session.flights);
        stream.key.number = version;
        const auto interpretation = probeWith(session.keyLog)->decryptedInterpretation(stream, {});
        const StreamInterpretation nothing;
        exporter->add({stream, nothing}, write);
        for (int part = 0; part < 2; ++part) exporter->add({stream, *interpretation, true}, write);
        expected.insert(expected.end(), chain.begin(), chain.end());
    }
    exporter->end(write);
    EXPECT_EQ(certificatesOf(text), expected);
    EXPECT_TRUE(text.starts_with("# stream 771, server name www.example.org, sent by the server\n# subject: example.org\n")) << text;
}

}  // namespace
}  // namespace sealscope
