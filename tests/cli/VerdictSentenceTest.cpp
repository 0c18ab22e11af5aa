// SPDX-License-Identifier: Apache-2.0
#include "app/records/VerdictSentence.h"

#include "app/verdict/StreamVerdict.h"

#include <gtest/gtest.h>

namespace sealscope {

namespace {

using Report = TLSDecryptionReport;
using Hello = Report::Hello;
using Stop = TLSDirectionReport::Stop;
using Problem = MergedKeylog::Examination::Problem;

const TLSDecryptionOutcome noHandshake = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noHandshake);
const TLSDecryptionOutcome unsupportedVersion = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::unsupportedVersion);
const TLSDecryptionOutcome noKeyMaterial = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noKeyMaterial);
const TLSDecryptionOutcome keyMismatch = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch);

/// A TLS 1.3 connection whose hellos are found, with secrets of these lengths.
Report tls13(std::optional<std::int64_t> handshakeSecrets = {}, std::optional<std::int64_t> applicationSecrets = {})
{
    return {.clientHello = Hello::found,
            .serverHello = Hello::found,
            .clientRandom = Data{0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0x6F, 0x70, 0x81, 0x92},
            .serverName = "example.org",
            .version = 0x0304,
            .versionName = "TLS 1.3",
            .cipherSuite = 0x1301,
            .cipherSuiteName = "TLS_AES_128_GCM_SHA256",
            .isSupportedVersion = true,
            .isSupportedSuite = true,
            .secrets = {{"CLIENT_HANDSHAKE_TRAFFIC_SECRET", handshakeSecrets}, {"CLIENT_TRAFFIC_SECRET_0", applicationSecrets}},
            .otherLabels = {},
            .client = {},
            .server = {}};
}

template <class Change> Report with(Report report, Change change)
{
    change(report);
    return report;
}

TLSDirectionReport direction(Stop stop, std::int64_t offset, std::int64_t records, std::int64_t opened, std::int64_t bytes,
                             std::int64_t skipped = 0)
{
    return {.stop = stop,
            .stopOffset = offset,
            .protectedRecords = records,
            .openedRecords = opened,
            .skippedRecords = skipped,
            .plaintextBytes = bytes,
            .alert = {}};
}

KeyLogFacts keyLog(std::int64_t clientRandoms, std::int64_t connections)
{
    return {.material = {.secrets = 4 * clientRandoms, .clientRandoms = clientRandoms, .labels = {}},
            .connections = connections,
            .problems = {}};
}

}  // namespace

TEST(VerdictSentence, NamesTheCauseAndWhatHelps)
{
    struct Case {
        const char* name;
        StreamVerdict verdict;
        StreamSummary summary;
        const char* sentence;
    };
    const StreamSummary whole{.clientBytes = 500, .serverBytes = 4'000, .hasSYN = true};
    const Case cases[] = {
        {"a capture that begins too late",
         {noHandshake, Report{}, {}},
         {.clientBytes = 500, .serverBytes = 4'000},
         "the capture starts after the Client Hello; start capturing before the connection opens"},
        {"one that begins too late for the key log's secrets",
         {noHandshake, Report{.search = TLSSecretSearchReport{2, 2}}, {}},
         {.clientBytes = 500, .serverBytes = 4'000},
         "the capture starts after the Client Hello; start capturing before the connection opens; the secrets of 2 connections in the "
         "key log were tried, and none opens a record"},
        {"more of them than are tried",
         {noHandshake, Report{.search = TLSSecretSearchReport{5'000, 1'024}}, {}},
         {.clientBytes = 500, .serverBytes = 4'000},
         "the capture starts after the Client Hello; start capturing before the connection opens; the secrets of 1024 of 5000 "
         "connections in the key log were tried, and none opens a record"},
        {"more connections than secrets are tried for",
         {noHandshake, Report{.search = TLSSecretSearchReport{5'000, 0}}, {}},
         {.clientBytes = 500, .serverBytes = 4'000},
         "the capture starts after the Client Hello; start capturing before the connection opens; the secrets in the key log were not "
         "tried: earlier trials took the time that there is for them"},
        {"a hello that is not there",
         {noHandshake, Report{}, {}},
         whole,
         "the client's bytes hold no Client Hello: it was lost, or TLS starts later in this connection"},
        {"a hello over several records",
         {noHandshake, Report{.clientHello = Hello::cutByRecords}, {}},
         whole,
         "the Client Hello is split over several TLS records"},
        {"a hello that is cut",
         {noHandshake, Report{.clientHello = Hello::found, .serverHello = Hello::cutByData}, {}},
         whole,
         "the Server Hello is cut off by the end of the capture, or by bytes that it lost"},
        {"one direction alone",
         {noHandshake, Report{.clientHello = Hello::found}, {}},
         {.clientBytes = 500, .hasSYN = true},
         "the capture has no bytes from the server; capture both directions, until the server answers"},
        {"a refusal",
         {noHandshake,
          with(Report{.clientHello = Hello::found},
               [](Report& report) { report.server.alert = TLSAlertReport{2, 40, "handshake_failure"}; }),
          {}},
         whole,
         "the server's bytes hold no Server Hello; the server sent the alert handshake_failure"},
        {"an old version",
         {unsupportedVersion, Report{.version = 0x0302, .versionName = "TLS 1.1"}, {}},
         whole,
         "TLS 1.1 is not supported for decryption"},
        {"no key log",
         {noKeyMaterial, tls13(), KeyLogFacts{}},
         whole,
         "no key log given: use --keylog FILE, or run the client with SSLKEYLOGFILE set"},
        {"a key log that is not there",
         {noKeyMaterial, tls13(),
          KeyLogFacts{.problems = {{.file = "keys.txt", .found = {.problem = Problem::cannotOpen, .error = ENOENT}}}}},
         whole,
         "no key log with secrets: keys.txt: No such file or directory"},
        {"the log of another session",
         {noKeyMaterial, tls13(), keyLog(7, 0)},
         whole,
         "the key log has no secret for this connection (client random 1a2b3c4d5e6f7081…); its 7 others all come from other captures: is "
         "it the log of another session, or of the other leg of a proxy?"},
        {"a log of some of the connections",
         {noKeyMaterial, tls13(), keyLog(7, 3)},
         whole,
         "the key log has no secret for this connection (client random 1a2b3c4d5e6f7081…); it has 7 others, 3 from this capture: was it "
         "overwritten, or did another program open this connection?"},
        {"CLIENT_RANDOM for TLS 1.3",
         {noKeyMaterial, with(tls13(), [](Report& report) { report.otherLabels = {"CLIENT_RANDOM"}; }), keyLog(1, 1)},
         whole,
         "the key log has only CLIENT_RANDOM for this connection; TLS 1.3 needs CLIENT_HANDSHAKE_TRAFFIC_SECRET, CLIENT_TRAFFIC_SECRET_0"},
        {"handshake secrets alone",
         {noKeyMaterial, tls13(32), keyLog(1, 1)},
         whole,
         "the key log has only CLIENT_HANDSHAKE_TRAFFIC_SECRET for this connection; TLS 1.3 needs CLIENT_TRAFFIC_SECRET_0"},
        {"a suite that cannot be opened",
         {keyMismatch,
          with(tls13(32, 32),
               [](Report& report) {
                   report.isSupportedSuite = false;
                   report.cipherSuiteName = "TLS_RSA_WITH_AES_128_CBC_SHA";
               }),
          {}},
         whole,
         "cipher suite TLS_RSA_WITH_AES_128_CBC_SHA is not supported for decryption"},
        {"application secrets without the handshake's",
         {keyMismatch, with(tls13({}, 32), [](Report& report) { report.client.stop = report.server.stop = Stop::noHandshakeSecret; }), {}},
         whole,
         "the key log has the application secrets but not the handshake secrets, which the first records need; log those too"},
        {"a secret of a wrong length",
         {keyMismatch, with(tls13(32, 31), [](Report& report) { report.client.stop = report.server.stop = Stop::badSecret; }), {}},
         whole,
         "a secret in the key log has the wrong length for this connection, CLIENT_HANDSHAKE_TRAFFIC_SECRET 32 bytes, "
         "CLIENT_TRAFFIC_SECRET_0 31 bytes"},
        {"nothing to open",
         {keyMismatch, with(tls13(32, 32), [](Report& report) { report.client.stop = report.server.stop = Stop::nothingProtected; }), {}},
         whole,
         "the secrets are there, but the capture has no encrypted record of this connection"},
        {"secrets that do not fit",
         {keyMismatch,
          with(tls13(32, 32),
               [](Report& report) {
                   report.client = direction(Stop::doesNotOpen, 330, 4, 0, 0);
                   report.server = direction(Stop::noSecret, 0, 6, 0, 0);
               }),
          {}},
         whole,
         "the key log's secrets do not open this connection: client 0 of 4 records, 0 bytes, up to byte 330, where a record does not "
         "authenticate; server 0 of 6 records, 0 bytes, the key log lacks this direction's secret"},
        {"all of it",
         {TLSDecryptionOutcome::decrypted(),
          with(tls13(32, 32),
               [](Report& report) {
                   report.client = direction(Stop::endOfData, 900, 3, 3, 517);
                   report.server = direction(Stop::endOfData, 5'000, 1, 1, 1);
               }),
          {}},
         whole,
         "client 3 of 3 records, 517 bytes; server 1 of 1 record, 1 byte"},
        {"part of it",
         {TLSDecryptionOutcome::decrypted(),
          with(tls13(32, 32),
               [](Report& report) {
                   report.client = direction(Stop::keyUpdate, 900, 5, 3, 517);
                   report.server = direction(Stop::lostBytes, 5'000, 14, 12, 4'096, 1);
               }),
          {}},
         whole,
         "client 3 of 5 records, 517 bytes, up to byte 900, where a key update changed the key; server 12 of 14 records, 4096 bytes, "
         "1 skipped, up to byte 5000, where the capture lost bytes"},
        {"behind gaps",
         {TLSDecryptionOutcome::decrypted(),
          with(tls13(32, 32),
               [](Report& report) {
                   report.client = direction(Stop::endOfData, 900, 3, 3, 517);
                   report.server = direction(Stop::endOfData, 22'000'000, 1'391, 1'380, 21'000'000, 11);
                   report.server.gaps = {{.range = {100, 8'100}}, {.range = {90'000, 99'370}}, {.range = {200'000, 200'006}}};
               }),
          {}},
         whole,
         "client 3 of 3 records, 517 bytes; server 1,380 of 1,391 records, 21,000,000 bytes, 11 lost, 3 gaps of 17,376 bytes"},
        {"records that nobody saw the headers of",
         {TLSDecryptionOutcome::decrypted(),
          with(tls13(32, 32),
               [](Report& report) {
                   report.client = direction(Stop::nothingProtected, 0, 0, 0, 0);
                   report.server = direction(Stop::endOfData, 900'000, 40, 39, 500'000, 3);
                   report.server.gaps = {{.range = {100, 49'300}, .records = 3}};
               }),
          {}},
         whole,
         "client sent nothing protected; server 39 of 42 records, 500,000 bytes, 3 lost, 1 gap of 49,200 bytes"},
        {"a private key of another server",
         {unsupportedVersion,
          with(tls13(), [](Report& report) { report.privateKeys = {TLSPrivateKeyReport::Use::otherCertificate, "www.example.org"}; }),
          {}},
         whole,
         "the private key does not belong to the server's certificate, which is for www.example.org"},
        {"a private key beside a key log that matters more",
         {noKeyMaterial, with(tls13(32), [](Report& report) { report.privateKeys = {TLSPrivateKeyReport::Use::otherKeyExchange, ""}; }),
          keyLog(1, 1)},
         whole,
         "the key log has only CLIENT_HANDSHAKE_TRAFFIC_SECRET for this connection; TLS 1.3 needs CLIENT_TRAFFIC_SECRET_0"},
        {"a probe without facts", {keyMismatch, {}, {}}, whole, "the secrets do not fit this connection"},
    };
    for (const auto& [name, verdict, summary, sentence] : cases) EXPECT_EQ(verdictSentence(verdict, summary), sentence) << name;
    EXPECT_EQ(verdictSentence({noKeyMaterial, tls13(), KeyLogFacts{}}, whole, {.place = SentenceReader::Place::window}),
              "no key log given: choose one, or run the client with SSLKEYLOGFILE set");
}

TEST(VerdictSentence, IsInEnglishWhereOtherWordsDoNotFit)
{
    static std::string_view translation;
    const SentenceReader reader{.words = [](std::string_view english) { return english.starts_with("{} is") ? translation : english; }};
    const StreamVerdict verdict{unsupportedVersion, Report{.version = 0x0302, .versionName = "TLS 1.1"}, {}};
    const std::string english = verdictSentence(verdict, {});
    const std::pair<std::string_view, std::string> cases[] = {{"kein {0}", "kein TLS 1.1"},
                                                              {"kein {}, nein", "kein TLS 1.1, nein"},
                                                              {"{1}", english},
                                                              {"kein {", english},
                                                              {"kein {:d}", english}};
    for (const auto& [pattern, sentence] : cases) {
        translation = pattern;
        EXPECT_EQ(verdictSentence(verdict, {}, reader), sentence) << pattern;
    }
}

}  // namespace sealscope
