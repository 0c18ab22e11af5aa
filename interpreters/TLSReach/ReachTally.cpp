// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachTally.h"

#include "Sealscope/TLSDirectionReporter.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "interpreters/TLSReach/ReachConnection.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Stop = TLSDirectionReport::Stop;

/// The labels under which a version's secrets are looked for.
std::vector<std::string_view> labelsOf(const HandshakeParameters& parameters)
{
    if (!parameters.isTLS13()) return {"CLIENT_RANDOM"};
    const TLSSecretLabels client = secretLabels(Direction::clientToServer);
    const TLSSecretLabels server = secretLabels(Direction::serverToClient);
    std::vector<std::string_view> labels{client.handshake, server.handshake, client.application, server.application};
    if (parameters.offersEarlyData) labels.insert(labels.begin(), "CLIENT_EARLY_TRAFFIC_SECRET");
    return labels;
}

TLSDirectionReport directionReport(ReachConnection& connection, Direction direction)
{
    ReachWalk walk(connection, direction);
    ReachTally tally;
    while (walk.next()) tally.take(walk);
    return tally.report(walk, connection, direction);
}

}  // namespace

void ReachTally::take(const ReachWalk& walk)
{
    if (const auto& gap = walk.gap()) {
        report_.gaps.push_back(*gap);
        report_.skippedRecords += gap->records;
    }
    if (walk.isApplicationData()) report_.plaintextBytes += walk.content().size();
}

TLSDirectionReport ReachTally::report(const ReachWalk& walk, const ReachConnection& connection, Direction direction)
{
    TLSDirectionReport report = report_;
    report.openedRecords = walk.openedRecords();
    report.protectedRecords = walk.protectedRecords();
    const StreamData& data = connection.stream().data(direction);
    const auto stopAt = [&](Stop stop, std::int64_t offset) {
        report.stop = stop;
        report.stopOffset = offset;
    };
    if (!walk.hasKeys() && report.protectedRecords > 0) {
        stopAt(Stop::noSecret, 0);
    } else if (const auto& gap = walk.gap()) {
        stopAt(gap->isLost ? Stop::lostBytes : Stop::doesNotOpen, gap->range.lower);
        if (report.openedRecords > 0) report.gaps.push_back(*gap);
    } else if (walk.cutFrom()) {
        stopAt(Stop::cutRecord, *walk.cutFrom());
    } else {
        stopAt(report.protectedRecords > 0 ? Stop::endOfData : Stop::nothingProtected, data.size());
    }
    if (report.plaintextBytes == 0) report.alert = clearAlert(data);
    return report;
}

TLSDecryptionReport reachReport(ReachConnection& connection, ReportDepth depth)
{
    TLSDecryptionReport report;
    report.clientHello = connection.clientHelloState();
    report.serverHello = connection.serverHelloState();
    if (const auto& hello = connection.clientHello()) {
        report.clientRandom = hello->clientRandom;
        report.serverName = hello->serverName;
    }
    if (const auto& hello = connection.serverHello()) {
        report.version = hello->supportedVersion.value_or(hello->legacyVersion);
        report.cipherSuite = hello->cipherSuite;
    }
    const auto failed = [&](TLSDecryptionFailure failure) { report.outcome = TLSDecryptionOutcome::notDecrypted(failure); };
    const auto& parameters = connection.parameters();
    report.privateKeys = connection.privateKeyReport();
    report.search = connection.search();
    if (parameters) {
        report.clientRandom = parameters->clientRandom;
        report.version = parameters->version;
        report.cipherSuite = parameters->cipherSuite;
    }
    if (report.version) report.versionName = versionName(*report.version);
    if (report.cipherSuite) report.cipherSuiteName = ReachSuite::name(*report.cipherSuite);
    if (!parameters) {
        failed(TLSDecryptionFailure::noHandshake);
        report.client.alert = clearAlert(connection.stream().clientToServerData);
        report.server.alert = clearAlert(connection.stream().serverToClientData);
        return report;
    }

    const TLSSecrets& known = connection.secrets().keyLog.secrets;
    const std::vector<std::string_view> read = labelsOf(*parameters);
    for (const std::string_view label : read) report.secrets.push_back({std::string(label), known.length(label, parameters->clientRandom)});
    for (const std::string_view label : TLSKeyLog::knownLabels)
        if (std::ranges::find(read, label) == read.end() && known.length(label, parameters->clientRandom))
            report.otherLabels.emplace_back(label);
    report.isSupportedVersion = parameters->isTLS13() || (parameters->version >= 0x0300 && parameters->version <= 0x0303);
    report.isSupportedSuite = parameters->suite.has_value();
    if (!report.isSupportedVersion)
        failed(TLSDecryptionFailure::unsupportedVersion);
    else if (!report.isSupportedSuite)
        failed(TLSDecryptionFailure::keyMismatch);
    else if (!connection.hasKeyMaterial())
        failed(TLSDecryptionFailure::noKeyMaterial);
    if (depth == ReportDepth::hellos || !report.isSupportedSuite) return report;

    report.client = directionReport(connection, Direction::clientToServer);
    report.server = directionReport(connection, Direction::serverToClient);
    if (report.plaintextBytes() > 0)
        report.outcome = TLSDecryptionOutcome::decrypted();
    else if (!report.outcome)
        failed(TLSDecryptionFailure::keyMismatch);
    return report;
}

}  // namespace sealscope
