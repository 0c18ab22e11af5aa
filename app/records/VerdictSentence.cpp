// SPDX-License-Identifier: Apache-2.0
#include "app/records/VerdictSentence.h"

#include "app/session/Session.h"
#include "app/texts/SizeText.h"
#include "app/verdict/StreamVerdict.h"

#include <algorithm>
#include <cstring>
#include <fmt/compile.h>
#include <fmt/format.h>
#include <iterator>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Hello = TLSDecryptionReport::Hello;
using Stop = TLSDirectionReport::Stop;

/// In groups of three digits.
std::string grouped(std::int64_t count)
{
    std::string text = fmt::to_string(count);
    for (auto at = std::ssize(text) - 3; at > 0; at -= 3) text.insert(static_cast<std::size_t>(at), 1, ',');
    return text;
}

/// The start of a client random: enough to find its line in a key log.
std::string clientRandomText(const TLSDecryptionReport& report)
{
    return report.clientRandom ? fmt::format("client random {}…", hexText(report.clientRandom->view().sub(0, 8))) : "this client random";
}

/// The alert that a side sent in the clear, as the end of a sentence; empty when it sent none.
std::string alertText(const TLSDecryptionReport& report)
{
    if (const auto& alert = report.server.alert) return fmt::format("; the server sent the alert {}", alert->name);
    if (const auto& alert = report.client.alert) return fmt::format("; the client sent the alert {}", alert->name);
    return "";
}

std::string noHandshake(const TLSDecryptionReport& report, const StreamSummary& summary)
{
    switch (report.clientHello) {
    case Hello::missing:
        if (!summary.hasSYN) return "the capture starts after the Client Hello; start capturing before the connection opens";
        return "the client's bytes hold no Client Hello: it was lost, or TLS starts later in this connection";
    case Hello::cutByRecords: return "the Client Hello is split over several TLS records";
    case Hello::cutByData: return "the Client Hello is cut off by the end of the capture, or by bytes that it lost";
    case Hello::found: break;
    }
    switch (report.serverHello) {
    case Hello::missing:
        if (summary.serverBytes == 0) return "the capture has no bytes from the server; capture both directions, until the server answers";
        return "the server's bytes hold no Server Hello" + alertText(report);
    case Hello::cutByRecords: return "the Server Hello is split over several TLS records";
    case Hello::cutByData: return "the Server Hello is cut off by the end of the capture, or by bytes that it lost";
    case Hello::found: break;
    }
    return "the handshake is not complete in the capture" + alertText(report);
}

std::string noKeyMaterial(const StreamVerdict& verdict, SentenceReader reader)
{
    const KeyLogFacts facts = verdict.keyLog.value_or(KeyLogFacts{});
    if (facts.material.secrets == 0) {
        std::vector<std::string> problems;
        std::ranges::transform(facts.problems, std::back_inserter(problems), problemText);
        if (!problems.empty()) return fmt::format("no key log with secrets: {}", fmt::join(problems, "; "));
        if (reader == SentenceReader::window) return "no key log given: choose one, or run the client with SSLKEYLOGFILE set";
        return "no key log given: use --keylog FILE, or run the client with SSLKEYLOGFILE set";
    }
    if (!verdict.report) return "the key log holds no secret for this connection";
    const TLSDecryptionReport& report = *verdict.report;

    std::vector<std::string_view> wanted, present;
    for (const TLSSecretReport& secret : report.secrets) (secret.secretLength ? present : wanted).push_back(secret.label);
    if (!present.empty() || !report.otherLabels.empty()) {
        present.insert(present.end(), report.otherLabels.begin(), report.otherLabels.end());
        return fmt::format("the key log has only {} for this connection; {} needs {}", fmt::join(present, ", "), report.versionName,
                           fmt::join(wanted, ", "));
    }
    const std::string missing = fmt::format("the key log has no secret for this connection ({})", clientRandomText(report));
    if (facts.connections == 0)
        return fmt::format(
            "{}; its {} other{} all come from other captures: is it the log of another session, or of the other leg of a proxy?", missing,
            facts.material.clientRandoms, facts.material.clientRandoms == 1 ? "" : "s");
    return fmt::format("{}; it has {} other{}, {} from this capture: was it overwritten, or did another program open this connection?",
                       missing, facts.material.clientRandoms, facts.material.clientRandoms == 1 ? "" : "s", facts.connections);
}

/// Where a direction stopped opening, as a clause; empty when nothing is the matter.
std::string stopText(const TLSDirectionReport& direction)
{
    const auto at = [&](std::string_view what) { return fmt::format("up to byte {}, where {}", direction.stopOffset, what); };
    switch (direction.stop) {
    case Stop::endOfData:
    case Stop::nothingProtected: return "";
    case Stop::noSecret: return "the key log lacks this direction's secret";
    case Stop::noHandshakeSecret: return "the key log has its application secret but not its handshake secret";
    case Stop::badSecret: return "the key log's secret has the wrong length";
    case Stop::lostBytes: return at("the capture lost bytes");
    case Stop::cutRecord: return at("the capture ends within a record");
    case Stop::noRecord: return at("there is no TLS record");
    case Stop::earlyData: return at("early data starts");
    case Stop::keyUpdate: return at("a key update changed the key");
    case Stop::renegotiation: return at("a second handshake changed the keys");
    case Stop::doesNotOpen: return at("a record does not authenticate");
    case Stop::notAttempted: return "was not tried";
    }
    std::unreachable();
}

/// How much of a direction opened, as in "client 3 of 4 records, 517 bytes, up to byte 901, where the capture lost bytes". Most
/// sentences are made of these, one for each stream that decrypts, so their patterns are read when this is compiled.
void appendOpened(std::string& text, std::string_view side, const TLSDirectionReport& direction)
{
    const auto append = [&](auto pattern, const auto&... values) { fmt::format_to(std::back_inserter(text), pattern, values...); };
    if (direction.stop == Stop::nothingProtected) return append(FMT_COMPILE("{} sent nothing protected"), side);
    const auto plural = [](std::int64_t count) { return std::string_view(count == 1 ? "" : "s"); };
    if (!direction.gaps.empty()) {
        std::int64_t gapBytes = 0;
        for (const PlaintextGap& gap : direction.gaps) gapBytes += gap.range.size();
        append(FMT_COMPILE("{} {} of {} record{}, {} byte{}, {} lost, {} gap{} of {} byte{}"), side, grouped(direction.openedRecords),
               grouped(direction.protectedRecords), plural(direction.protectedRecords), grouped(direction.plaintextBytes),
               plural(direction.plaintextBytes), grouped(direction.skippedRecords), grouped(std::ssize(direction.gaps)),
               plural(std::ssize(direction.gaps)), grouped(gapBytes), plural(gapBytes));
        if (const std::string stop = stopText(direction); !stop.empty()) append(FMT_COMPILE(", {}"), stop);
        return;
    }
    append(FMT_COMPILE("{} {} of {} record{}, {} byte{}"), side, direction.openedRecords, direction.protectedRecords,
           plural(direction.protectedRecords), direction.plaintextBytes, plural(direction.plaintextBytes));
    if (direction.skippedRecords > 0) append(FMT_COMPILE(", {} skipped"), direction.skippedRecords);
    if (const std::string stop = stopText(direction); !stop.empty()) append(FMT_COMPILE(", {}"), stop);
}

/// The same for both.
std::string openedText(const TLSDecryptionReport& report)
{
    std::string text;
    text.reserve(96);
    appendOpened(text, "client", report.client);
    text += "; ";
    appendOpened(text, "server", report.server);
    return text;
}

/// What is the matter with the private keys at hand; empty when nothing is, or when they do not matter.
std::string privateKeyProblem(const StreamVerdict& verdict)
{
    if (!verdict.report || !verdict.report->privateKeys) return "";
    const TLSPrivateKeyReport& keys = *verdict.report->privateKeys;
    const bool hasKeyLog = verdict.keyLog && verdict.keyLog->material.secrets > 0;
    switch (keys.use) {
    case TLSPrivateKeyReport::Use::fits: return "";
    case TLSPrivateKeyReport::Use::otherCertificate:
        if (keys.certificate.empty()) return "the private key does not belong to the server's certificate";
        return fmt::format("the private key does not belong to the server's certificate, which is for {}", keys.certificate);
    case TLSPrivateKeyReport::Use::otherKeyExchange:
        if (hasKeyLog) return "";
        return fmt::format("a private key does not open this connection, whose key exchange encrypts nothing to it ({}); a key log does",
                           verdict.report->cipherSuiteName);
    case TLSPrivateKeyReport::Use::noKeyExchange:
        if (hasKeyLog) return "";
        return "the private key has nothing to decrypt: the capture lacks the key exchange, or the session was resumed";
    }
    std::unreachable();
}

std::string keyMismatch(const TLSDecryptionReport& report)
{
    if (!report.isSupportedSuite) return fmt::format("cipher suite {} is not supported for decryption", report.cipherSuiteName);
    const TLSDirectionReport* sides[] = {&report.server, &report.client};
    const auto any = [&](Stop stop) { return std::ranges::any_of(sides, [&](const auto* side) { return side->stop == stop; }); };
    const auto all = [&](Stop stop) { return std::ranges::all_of(sides, [&](const auto* side) { return side->stop == stop; }); };
    if (all(Stop::nothingProtected)) return "the secrets are there, but the capture has no encrypted record of this connection";
    if (any(Stop::badSecret)) {
        std::string sentence = "a secret in the key log has the wrong length for this connection";
        for (const TLSSecretReport& secret : report.secrets)
            if (secret.secretLength) sentence += fmt::format(", {} {}", secret.label, counted(*secret.secretLength, "byte"));
        return sentence;
    }
    if (any(Stop::noHandshakeSecret))
        return "the key log has the application secrets but not the handshake secrets, which the first records need; log those too";
    return fmt::format("the key log's secrets do not open this connection: {}{}", openedText(report), alertText(report));
}

}  // namespace

std::string_view verdictText(const StreamVerdict& verdict)
{
    if (verdict.outcome.isDecrypted()) return verdict.isPartly() ? "partly decrypted" : "decrypted";
    switch (*verdict.outcome.failure) {
    case TLSDecryptionFailure::noHandshake: return "no handshake";
    case TLSDecryptionFailure::unsupportedVersion: return "unsupported version";
    case TLSDecryptionFailure::noKeyMaterial: return "no key material";
    case TLSDecryptionFailure::keyMismatch: return "key mismatch";
    }
    std::unreachable();
}

std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary, SentenceReader reader)
{
    const auto& report = verdict.report;
    if (verdict.outcome.isDecrypted()) {
        if (!report) return "the stream decrypts";
        if (report->clientHello == Hello::found) return openedText(*report);
        return fmt::format("{}; the Client Hello is missing, and the secrets of {} were found by trying", openedText(*report),
                           clientRandomText(*report));
    }
    if (auto problem = privateKeyProblem(verdict); !problem.empty()) return problem;
    switch (*verdict.outcome.failure) {
    case TLSDecryptionFailure::noHandshake: return report ? noHandshake(*report, summary) : "the capture holds no complete handshake";
    case TLSDecryptionFailure::unsupportedVersion:
        return fmt::format("{} is not supported for decryption", report ? report->versionName : "this version");
    case TLSDecryptionFailure::noKeyMaterial: return noKeyMaterial(verdict, reader);
    case TLSDecryptionFailure::keyMismatch: return report ? keyMismatch(*report) : "the secrets do not fit this connection";
    }
    std::unreachable();
}

std::string problemReason(const KeyLogProblem& problem)
{
    using Problem = MergedKeylog::Examination::Problem;
    const MergedKeylog::Examination& found = problem.found;
    switch (found.problem) {
    case Problem::none: return "";
    case Problem::cannotOpen:
    case Problem::cannotRead: return std::strerror(found.error);
    case Problem::isDirectory: return "is a directory";
    case Problem::isNoFile: return "not a regular file";
    case Problem::tooLarge: return fmt::format("{} bytes are too many for the memory of this machine", found.size);
    case Problem::isEmpty: return "is empty";
    case Problem::noValidLine:
        if (found.lines == 0) return "holds only comments";
        return fmt::format("not a key log (none of its {} line{} is a secret)", found.lines, found.lines == 1 ? "" : "s");
    }
    std::unreachable();
}

std::string problemText(const KeyLogProblem& problem) { return fmt::format("{}: {}", problem.file, problemReason(problem)); }

std::string incompleteText(const TLSDecryptionReport& report)
{
    std::string text;
    for (const auto& [side, direction] : {std::pair("client", &report.client), std::pair("server", &report.server)}) {
        if (stopText(*direction).empty() && direction->gaps.empty()) continue;
        if (!text.empty()) text += "; ";
        appendOpened(text, side, *direction);
    }
    return text;
}

}  // namespace sealscope
