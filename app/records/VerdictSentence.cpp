// SPDX-License-Identifier: Apache-2.0
#include "app/records/VerdictSentence.h"

#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Hello = TLSDecryptionReport::Hello;
using Stop = TLSDirectionReport::Stop;

/// The start of a client random: enough to find its line in a key log.
std::string clientRandomText(const TLSDecryptionReport& report, const SentenceReader& reader)
{
    if (!report.clientRandom) return std::string(reader.word("this client random"));
    return reader.say("client random {}…", hexText(report.clientRandom->view().sub(0, 8)));
}

/// A clause with the alert that a side sent in the clear behind it, where one did.
std::string withAlert(std::string clause, const TLSDecryptionReport& report, const SentenceReader& reader)
{
    if (const auto& alert = report.server.alert)
        return (clause += reader.word("; ")) += reader.say("the server sent the alert {}", alert->name);
    if (const auto& alert = report.client.alert)
        return (clause += reader.word("; ")) += reader.say("the client sent the alert {}", alert->name);
    return clause;
}

std::string noHandshake(const TLSDecryptionReport& report, const StreamSummary& summary, const SentenceReader& reader)
{
    switch (report.clientHello) {
    case Hello::missing:
        if (!summary.hasSYN) return reader.say("the capture starts after the Client Hello; start capturing before the connection opens");
        return reader.say("the client's bytes hold no Client Hello: it was lost, or TLS starts later in this connection");
    case Hello::cutByRecords: return reader.say("the Client Hello is split over several TLS records");
    case Hello::cutByData: return reader.say("the Client Hello is cut off by the end of the capture, or by bytes that it lost");
    case Hello::found: break;
    }
    switch (report.serverHello) {
    case Hello::missing:
        if (summary.serverBytes == 0)
            return reader.say("the capture has no bytes from the server; capture both directions, until the server answers");
        return withAlert(reader.say("the server's bytes hold no Server Hello"), report, reader);
    case Hello::cutByRecords: return reader.say("the Server Hello is split over several TLS records");
    case Hello::cutByData: return reader.say("the Server Hello is cut off by the end of the capture, or by bytes that it lost");
    case Hello::found: break;
    }
    return withAlert(reader.say("the handshake is not complete in the capture"), report, reader);
}

/// A clause with how many secrets were tried in vain behind it, where that was done.
std::string withSearch(std::string clause, const TLSDecryptionReport& report, const SentenceReader& reader)
{
    if (!report.search || report.search->candidates == 0) return clause;
    const auto& [candidates, tried] = *report.search;
    clause += reader.word("; ");
    if (tried == 0)
        return clause += reader.say("the secrets in the key log were not tried: earlier trials took the time that there is for them");
    if (tried < candidates)
        return clause += reader.say("the secrets of {} of {} connections in the key log were tried, and none opens a record",
                                    tried, candidates);
    return clause += reader.sayOf(tried, "the secrets of {} connection in the key log were tried, and none opens a record",
                                  "the secrets of {} connections in the key log were tried, and none opens a record", tried);
}

std::string noKeyMaterial(const StreamVerdict& verdict, const SentenceReader& reader)
{
    const KeyLogFacts facts = verdict.keyLog.value_or(KeyLogFacts{});
    if (facts.material.secrets == 0) {
        std::vector<std::string> problems;
        for (const KeyLogProblem& problem : facts.problems) problems.push_back(problemText(problem, reader));
        if (!problems.empty()) return reader.say("no key log with secrets: {}", fmt::join(problems, reader.word("; ")));
        if (reader.place == SentenceReader::Place::window)
            return reader.say("no key log given: choose one, or run the client with SSLKEYLOGFILE set");
        return "no key log given: use --keylog FILE, or run the client with SSLKEYLOGFILE set";
    }
    if (!verdict.report) return reader.say("the key log holds no secret for this connection");
    const TLSDecryptionReport& report = *verdict.report;

    std::vector<std::string_view> wanted, present;
    for (const TLSSecretReport& secret : report.secrets) (secret.secretLength ? present : wanted).push_back(secret.label);
    if (!present.empty() || !report.otherLabels.empty()) {
        present.insert(present.end(), report.otherLabels.begin(), report.otherLabels.end());
        const std::string_view comma = reader.word(", ");
        return reader.say("the key log has only {} for this connection; {} needs {}", fmt::join(present, comma), report.versionName,
                          fmt::join(wanted, comma));
    }
    std::string sentence = reader.say("the key log has no secret for this connection ({})", clientRandomText(report, reader));
    const std::int64_t others = facts.material.clientRandoms;
    sentence += reader.word("; ");
    if (facts.connections == 0)
        return sentence += reader.sayOf(
                   others, "its {} other all come from other captures: is it the log of another session, or of the other leg of a proxy?",
                   "its {} others all come from other captures: is it the log of another session, or of the other leg of a proxy?", others);
    return sentence +=
           reader.sayOf(others, "it has {} other, {} from this capture: was it overwritten, or did another program open this connection?",
                        "it has {} others, {} from this capture: was it overwritten, or did another program open this connection?", others,
                        facts.connections);
}

/// Where a direction stopped opening, as a clause; empty when nothing is the matter.
std::string stopText(const TLSDirectionReport& direction, const SentenceReader& reader)
{
    const std::int64_t end = direction.stopOffset;
    switch (direction.stop) {
    case Stop::endOfData:
    case Stop::nothingProtected: return "";
    case Stop::noSecret: return reader.say("the key log lacks this direction's secret");
    case Stop::noHandshakeSecret: return reader.say("the key log has its application secret but not its handshake secret");
    case Stop::badSecret: return reader.say("the key log's secret has the wrong length");
    case Stop::lostBytes: return reader.say("up to byte {}, where the capture lost bytes", end);
    case Stop::cutRecord: return reader.say("up to byte {}, where the capture ends within a record", end);
    case Stop::noRecord: return reader.say("up to byte {}, where there is no TLS record", end);
    case Stop::earlyData: return reader.say("up to byte {}, where early data starts", end);
    case Stop::keyUpdate: return reader.say("up to byte {}, where a key update changed the key", end);
    case Stop::renegotiation: return reader.say("up to byte {}, where a second handshake changed the keys", end);
    case Stop::doesNotOpen: return reader.say("up to byte {}, where a record does not authenticate", end);
    case Stop::notAttempted: return reader.say("was not tried");
    }
    std::unreachable();
}

void appendBytes(std::string& text, std::int64_t bytes, const SentenceReader& reader)
{
    if (bytes == 1)
        reader.sayInto(text, FMT_COMPILE("{} byte"), bytes);
    else
        reader.sayInto(text, FMT_COMPILE("{} bytes"), bytes);
}

/// How much of a direction opened, as in "client 3 of 4 records, 517 bytes, up to byte 901, where the capture lost bytes". Most
/// sentences are made of these, one for each stream that decrypts.
void appendOpened(std::string& text, std::string_view side, const TLSDirectionReport& direction, const SentenceReader& reader)
{
    if (direction.stop == Stop::nothingProtected) return reader.sayInto(text, FMT_COMPILE("{} sent nothing protected"), side);
    const std::string_view comma = reader.word(", ");
    // Of records whose headers were lost nobody saw any, but the sequence numbers behind them tell of those as well.
    const std::int64_t told = direction.gaps.empty() ? 0 : direction.openedRecords + direction.skippedRecords;
    const std::int64_t records = std::max(direction.protectedRecords, told);
    const auto appendRecords = [&](const auto& opened, const auto& all) {
        if (records == 1)
            reader.sayInto(text, FMT_COMPILE("{} {} of {} record"), side, opened, all);
        else
            reader.sayInto(text, FMT_COMPILE("{} {} of {} records"), side, opened, all);
        text += comma;
    };
    if (direction.gaps.empty()) {
        appendRecords(direction.openedRecords, direction.protectedRecords);
        appendBytes(text, direction.plaintextBytes, reader);
        if (direction.skippedRecords > 0) (text += comma) += reader.say("{} skipped", direction.skippedRecords);
    } else {
        const auto bytesText = [&](std::int64_t bytes) { return reader.sayOf(bytes, "{} byte", "{} bytes", reader.grouped(bytes)); };
        const std::int64_t gaps = std::ssize(direction.gaps);
        std::int64_t gapBytes = 0;
        for (const PlaintextGap& gap : direction.gaps) gapBytes += gap.range.size();
        appendRecords(reader.grouped(direction.openedRecords), reader.grouped(records));
        ((text += bytesText(direction.plaintextBytes)) += comma) += reader.say("{} lost", reader.grouped(direction.skippedRecords));
        (text += comma) += reader.sayOf(gaps, "{} gap of {}", "{} gaps of {}", reader.grouped(gaps), bytesText(gapBytes));
    }
    if (const std::string stop = stopText(direction, reader); !stop.empty()) (text += comma) += stop;
}

/// The same for both.
std::string openedText(const TLSDecryptionReport& report, const SentenceReader& reader)
{
    std::string text;
    text.reserve(96);
    appendOpened(text, reader.word("client"), report.client, reader);
    text += reader.word("; ");
    appendOpened(text, reader.word("server"), report.server, reader);
    return text;
}

/// What is the matter with the private keys at hand; empty when nothing is, or when they do not matter.
std::string privateKeyProblem(const StreamVerdict& verdict, const SentenceReader& reader)
{
    if (!verdict.report || !verdict.report->privateKeys) return "";
    const TLSPrivateKeyReport& keys = *verdict.report->privateKeys;
    const bool hasKeyLog = verdict.keyLog && verdict.keyLog->material.secrets > 0;
    switch (keys.use) {
    case TLSPrivateKeyReport::Use::fits: return "";
    case TLSPrivateKeyReport::Use::otherCertificate:
        if (keys.certificate.empty()) return reader.say("the private key does not belong to the server's certificate");
        return reader.say("the private key does not belong to the server's certificate, which is for {}", keys.certificate);
    case TLSPrivateKeyReport::Use::otherKeyExchange:
        if (hasKeyLog) return "";
        return reader.say("a private key does not open this connection, whose key exchange encrypts nothing to it ({}); a key log does",
                          verdict.report->cipherSuiteName);
    case TLSPrivateKeyReport::Use::noKeyExchange:
        if (hasKeyLog) return "";
        return reader.say("the private key has nothing to decrypt: the capture lacks the key exchange, or the session was resumed");
    case TLSPrivateKeyReport::Use::notTried:
        return reader.say("the private key was not tried: it has opened as many key exchanges as it may; --most-key-exchanges N sets "
                          "another number, --stream I picks a connection");
    }
    std::unreachable();
}

std::string keyMismatch(const TLSDecryptionReport& report, const SentenceReader& reader)
{
    if (!report.isSupportedSuite) return reader.say("cipher suite {} is not supported for decryption", report.cipherSuiteName);
    const TLSDirectionReport* sides[] = {&report.server, &report.client};
    const auto any = [&](Stop stop) { return std::ranges::any_of(sides, [&](const auto* side) { return side->stop == stop; }); };
    const auto all = [&](Stop stop) { return std::ranges::all_of(sides, [&](const auto* side) { return side->stop == stop; }); };
    if (all(Stop::nothingProtected)) return reader.say("the secrets are there, but the capture has no encrypted record of this connection");
    if (any(Stop::badSecret)) {
        std::string sentence = reader.say("a secret in the key log has the wrong length for this connection");
        for (const TLSSecretReport& secret : report.secrets) {
            if (!secret.secretLength) continue;
            ((sentence += reader.word(", ")) += secret.label) += ' ';
            appendBytes(sentence, *secret.secretLength, reader);
        }
        return sentence;
    }
    if (any(Stop::noHandshakeSecret))
        return reader.say(
            "the key log has the application secrets but not the handshake secrets, which the first records need; log those too");
    return withAlert(reader.say("the key log's secrets do not open this connection: {}", openedText(report, reader)), report, reader);
}

std::string problemReason(const KeyLogProblem& problem, const SentenceReader& reader)
{
    using Problem = MergedKeylog::Examination::Problem;
    const MergedKeylog::Examination& found = problem.found;
    switch (found.problem) {
    case Problem::none: return "";
    case Problem::cannotOpen:
    case Problem::cannotRead: return std::strerror(found.error);
    case Problem::isDirectory: return reader.say("is a directory");
    case Problem::isNoFile: return reader.say("not a regular file");
    case Problem::tooLarge: return reader.say("{} bytes are too many for the memory of this machine", found.size);
    case Problem::isEmpty: return reader.say("is empty");
    case Problem::noValidLine:
        if (found.lines == 0) return reader.say("holds only comments");
        return reader.sayOf(found.lines, "not a key log (none of its {} line is a secret)",
                            "not a key log (none of its {} lines is a secret)", found.lines);
    }
    std::unreachable();
}

}  // namespace

std::string_view verdictText(const StreamVerdict& verdict, const SentenceReader& reader)
{
    if (verdict.outcome.isDecrypted()) return verdict.isPartly() ? reader.word("partly decrypted") : reader.word("decrypted");
    switch (*verdict.outcome.failure) {
    case TLSDecryptionFailure::noHandshake: return reader.word("no handshake");
    case TLSDecryptionFailure::unsupportedVersion: return reader.word("unsupported version");
    case TLSDecryptionFailure::noKeyMaterial: return reader.word("no key material");
    case TLSDecryptionFailure::keyMismatch: return reader.word("key mismatch");
    }
    std::unreachable();
}

std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary, const SentenceReader& reader)
{
    const auto& report = verdict.report;
    if (verdict.outcome.isDecrypted()) {
        if (!report) return reader.say("the stream decrypts");
        if (report->clientHello == Hello::found) return openedText(*report, reader);
        return reader.say("{}; the Client Hello is missing, and the secrets of {} were found by trying", openedText(*report, reader),
                          clientRandomText(*report, reader));
    }
    if (auto problem = privateKeyProblem(verdict, reader); !problem.empty()) return problem;
    switch (*verdict.outcome.failure) {
    case TLSDecryptionFailure::noHandshake:
        return report ? withSearch(noHandshake(*report, summary, reader), *report, reader)
                      : reader.say("the capture holds no complete handshake");
    case TLSDecryptionFailure::unsupportedVersion:
        return reader.say("{} is not supported for decryption",
                          report ? std::string_view(report->versionName) : reader.word("this version"));
    case TLSDecryptionFailure::noKeyMaterial: return noKeyMaterial(verdict, reader);
    case TLSDecryptionFailure::keyMismatch:
        return report ? keyMismatch(*report, reader) : reader.say("the secrets do not fit this connection");
    }
    std::unreachable();
}

std::string problemText(const KeyLogProblem& problem, const SentenceReader& reader)
{
    return reader.say("{}: {}", problem.file, problemReason(problem, reader));
}

std::string incompleteText(const TLSDecryptionReport& report)
{
    const SentenceReader reader;
    std::string text;
    for (const auto& [side, direction] : {std::pair("client", &report.client), std::pair("server", &report.server)}) {
        if (stopText(*direction, reader).empty() && direction->gaps.empty()) continue;
        if (!text.empty()) text += "; ";
        appendOpened(text, side, *direction, reader);
    }
    return text;
}

}  // namespace sealscope
