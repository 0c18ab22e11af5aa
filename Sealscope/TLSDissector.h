// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSCertificate.h"
#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSRecord.h"
#include "host/VELDependencies/VELNodeProtocol.h"
#include "platform/Bundle.h"
#include "platform/Data.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

class StreamData;

/// Reads TLS out of bytes: records, handshake messages, hellos, certificates, and the tree of a packet's fields.
/// It has no state; any thread may call any operation. Nothing throws: what is cut short ends a list, is marked truncated
/// or gives nothing. Where a base offset is asked for, results count from it; otherwise from the start of the bytes.
class TLSDissector {
public:
    /// The start test: five bytes that can open a TLS record of version 1.0 or later, with 1 ... 18432 bytes of body.
    static bool looksLikeTLS(DataView bytes);
    static bool looksLikeTLS(const StreamData& bytes);
    static bool looksLikeTLS(const Data& bytes) { return looksLikeTLS(bytes.view()); }
    /// All record headers in order. After the first, every five bytes are taken as a header whatever they hold; a
    /// truncated record is the last.
    static std::vector<TLSRecord> parseRecords(DataView bytes);
    static std::vector<TLSRecord> parseRecords(const Data& bytes) { return parseRecords(bytes.view()); }

    /// The messages of one record body; a truncated message is the last.
    static std::vector<TLSHandshakeMessage> parseHandshakeMessages(DataView body, std::int64_t baseOffset);
    static std::optional<ClientHelloInfo> parseClientHello(DataView body, std::int64_t baseOffset);
    static std::optional<ServerHelloInfo> parseServerHello(DataView body, std::int64_t baseOffset);
    /// `bytes` begin at the 2-byte length of an extension list.
    static std::vector<TLSExtension> parseExtensions(DataView bytes, std::int64_t baseOffset);
    // The three readers of an extension's data take the whole hello body, which also bounds what they read.
    static std::optional<std::string> parseServerName(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset);
    static std::vector<std::string> parseALPN(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset);
    static std::vector<std::uint16_t> parseSupportedVersions(DataView body, std::int64_t extensionBodyOffset, std::int64_t baseOffset);

    /// Whether `parseClientHello` accepts a body.
    static bool isClientHello(DataView body);
    /// The server name that `parseClientHello` finds, as a view of the body's bytes; cheaper where nothing else is wanted.
    static std::optional<std::string_view> clientHelloServerName(DataView body);

    /// The certificates of a Certificate message body (RFC 5246 §7.4.2); stops at the first entry that does not fit.
    static std::vector<TLSCertEntry> parseCertificates(DataView body, std::int64_t baseOffset);
    /// Nothing when the bytes are no X.509 certificate. Verifies nothing.
    static std::optional<CertSummary> certSummary(DataView der);

    /// Adds the tree of a complete Certificate message to the node of its handshake message. `bodyOffset` is the body's in the
    /// caller's coordinates.
    static void addCertificateNodes(VELNodeProtocol& handshakeNode, DataView body, std::int64_t bodyOffset, const Bundle& bundle);

    // The names of code points, see TLSNames.h.
    static std::string versionName(std::uint16_t version) { return sealscope::versionName(version); }
    static std::string cipherSuiteName(std::uint16_t suite) { return sealscope::cipherSuiteName(suite); }
    static std::string_view handshakeTypeName(TLSHandshakeType type) { return sealscope::handshakeTypeName(type); }
    static std::string extensionName(std::uint16_t codePoint, const Bundle& bundle) { return sealscope::extensionName(codePoint, bundle); }

    /// The tree of one payload: an array of one root node. Labels come from the bundle's table "LocalizableTLS". Much of it is made
    /// when somebody goes through it: the tree shares the payload, and the bundle outlives it.
    static VELNodeList nodes(const Data& payload, const Bundle& bundle);
};

}  // namespace sealscope
