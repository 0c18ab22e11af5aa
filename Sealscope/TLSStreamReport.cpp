// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamReport.h"

#include "Sealscope/TLSCipherSuiteRegistry.h"
#include "Sealscope/TLSDirectionReporter.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Hello = TLSDecryptionReport::Hello;

std::uint8_t type(TLSContentType contentType) { return std::to_underlying(contentType); }

template <class Info> struct HelloSearch {
    Hello state = Hello::missing;
    std::optional<Info> info;
};

/// The first hello of a direction, or how the first that cannot be read is cut.
template <class Info, class Parse> HelloSearch<Info> searchHello(const StreamData& data, TLSHandshakeType helloType, Parse parse)
{
    HelloSearch<Info> search;
    StreamReader inside(data);
    std::vector<std::uint8_t> gathered;
    bool isClear = true;  // what follows may be encrypted, and a message header by chance only
    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.contentType != type(TLSContentType::handshake)) isClear = false;
        if (record.contentType != type(TLSContentType::handshake)) return true;
        bool isSearched = false;
        forEachHandshakeMessage(inside, record, [&](const TLSHandshakeMessage& message) {
            if (message.handshakeType != std::to_underlying(helloType)) return true;
            if (!record.isTruncated && !message.isTruncated)
                search.info = parse(data.gather(message.bodyOffset, message.length, gathered), message.bodyOffset);
            // Zeros in place of lost bytes may read as a hello, but what is looked for is not in them.
            const ByteRange random{message.bodyOffset + 2, message.bodyOffset + 34};
            if (search.info)
                search.state = hasLostBytes(data, random) ? Hello::cutByData : Hello::found;
            else if (isClear && search.state == Hello::missing) {
                // A record is searched for lost bytes once, however many hellos in it cannot be read.
                if (record.isTruncated ||
                    (!std::exchange(isSearched, true) && hasLostBytes(data, {record.recordOffset, record.endOffset()})))
                    search.state = Hello::cutByData;
                else if (message.isTruncated)
                    search.state = Hello::cutByRecords;
            }
            return !search.info;
        });
        return !search.info;
    });
    return search;
}

bool isSupportedSuite(const TLSStreamDecryption::Context& context)
{
    return context.isTLS13 ? TLS13RecordDecryptor::suiteParameters(context.cipherSuite).has_value()
                           : TLS12RecordDecryptor::suiteParameters(context.cipherSuite).has_value();
}

/// The labels that a version reads.
std::vector<std::string_view> labelsOf(const TLSStreamDecryption::Context& context)
{
    if (!context.isTLS13) return {masterSecretLabel};
    const TLSSecretLabels client = secretLabels(Direction::clientToServer);
    const TLSSecretLabels server = secretLabels(Direction::serverToClient);
    return {client.handshake, server.handshake, client.application, server.application};
}

}  // namespace

TLSDecryptionReport TLSStreamReport::report(const TCPStream& stream, const TLSKeyLog& keyLog, ReportDepth depth)
{
    TLSDecryptionReport report;
    auto clientHello =
        searchHello<ClientHelloInfo>(stream.clientToServerData, TLSHandshakeType::clientHello, TLSDissector::parseClientHello);
    const auto serverHello =
        searchHello<ServerHelloInfo>(stream.serverToClientData, TLSHandshakeType::serverHello, TLSDissector::parseServerHello);
    report.clientHello = clientHello.state;
    report.serverHello = serverHello.state;
    if (const auto& hello = serverHello.info) {
        report.version = hello->supportedVersion.value_or(hello->legacyVersion);
        report.versionName = versionName(*report.version);
        report.cipherSuite = hello->cipherSuite;
        const auto registered = registeredCipherSuiteName(hello->cipherSuite);
        report.cipherSuiteName = registered ? std::string(*registered) : cipherSuiteName(hello->cipherSuite);
    }
    if (clientHello.info) {
        report.clientRandom = clientHello.info->clientRandom;
        report.serverName = std::move(clientHello.info->serverName);
    }
    const auto failed = [&](TLSDecryptionFailure failure) { report.outcome = TLSDecryptionOutcome::notDecrypted(failure); };
    if (!clientHello.info || !serverHello.info) {
        failed(TLSDecryptionFailure::noHandshake);
        report.client.alert = clearAlert(stream.clientToServerData);
        report.server.alert = clearAlert(stream.serverToClientData);
        return report;
    }

    const auto context = TLSStreamDecryption::context(*report.clientRandom, *serverHello.info);
    const auto secretLength = [&](std::string_view label) { return keyLog.secrets.length(label, *report.clientRandom); };
    const auto read = context ? labelsOf(*context) : std::vector<std::string_view>{};
    for (const std::string_view label : read) report.secrets.push_back({std::string(label), secretLength(label)});
    for (const std::string_view label : TLSKeyLog::knownLabels)
        if (std::ranges::find(read, label) == read.end() && secretLength(label)) report.otherLabels.emplace_back(label);
    if (!context) {
        failed(TLSDecryptionFailure::unsupportedVersion);
        return report;
    }

    report.isSupportedVersion = true;
    report.isSupportedSuite = isSupportedSuite(*context);
    if (!TLSStreamDecryption::hasKeyMaterial(*context, keyLog))
        failed(TLSDecryptionFailure::noKeyMaterial);
    else if (!report.isSupportedSuite)
        failed(TLSDecryptionFailure::keyMismatch);
    if (depth == ReportDepth::hellos || !report.isSupportedSuite) return report;

    const TLSDirectionReporter reporter(stream, *context, keyLog);
    report.client = reporter.report(Direction::clientToServer);
    report.server = reporter.report(Direction::serverToClient);
    if (report.client.plaintextBytes > 0 || report.server.plaintextBytes > 0)
        report.outcome = TLSDecryptionOutcome::decrypted();
    else if (!report.outcome)
        failed(TLSDecryptionFailure::keyMismatch);
    return report;
}

}  // namespace sealscope
