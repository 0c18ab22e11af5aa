// SPDX-License-Identifier: Apache-2.0
#include "app/cli/StreamVerdict.h"

#include "app/cli/Secrets.h"
#include "app/cli/StreamReading.h"
#include "app/cli/VerdictSentence.h"

#include <utility>

namespace sealscope::cli {

namespace {

std::string_view name(TLSDecryptionReport::Hello hello)
{
    switch (hello) {
    case TLSDecryptionReport::Hello::found: return "found";
    case TLSDecryptionReport::Hello::missing: return "missing";
    case TLSDecryptionReport::Hello::cutByRecords: return "cutByRecords";
    case TLSDecryptionReport::Hello::cutByData: return "cutByData";
    }
    std::unreachable();
}

std::string_view name(TLSDirectionReport::Stop stop)
{
    switch (stop) {
    case TLSDirectionReport::Stop::endOfData: return "endOfData";
    case TLSDirectionReport::Stop::nothingProtected: return "nothingProtected";
    case TLSDirectionReport::Stop::noSecret: return "noSecret";
    case TLSDirectionReport::Stop::noHandshakeSecret: return "noHandshakeSecret";
    case TLSDirectionReport::Stop::badSecret: return "badSecret";
    case TLSDirectionReport::Stop::lostBytes: return "lostBytes";
    case TLSDirectionReport::Stop::cutRecord: return "cutRecord";
    case TLSDirectionReport::Stop::noRecord: return "noRecord";
    case TLSDirectionReport::Stop::earlyData: return "earlyData";
    case TLSDirectionReport::Stop::keyUpdate: return "keyUpdate";
    case TLSDirectionReport::Stop::renegotiation: return "renegotiation";
    case TLSDirectionReport::Stop::doesNotOpen: return "doesNotOpen";
    case TLSDirectionReport::Stop::notAttempted: return "notAttempted";
    }
    std::unreachable();
}

void writeDirection(JSONLineWriter& json, std::string_view key, const TLSDirectionReport& direction)
{
    json.key(key);
    json.beginObject();
    json.member("stop", name(direction.stop));
    json.member("stopOffset", direction.stopOffset);
    json.member("protectedRecords", direction.protectedRecords);
    json.member("openedRecords", direction.openedRecords);
    json.member("skippedRecords", direction.skippedRecords);
    json.member("plaintextBytes", direction.plaintextBytes);
    json.key("alert");
    if (direction.alert) {
        json.beginObject();
        json.member("level", direction.alert->level);
        json.member("description", direction.alert->description);
        json.member("name", direction.alert->name);
        json.endObject();
    } else {
        json.null();
    }
    json.endObject();
}

}  // namespace

std::string_view verdictName(const TLSDecryptionOutcome& outcome)
{
    if (outcome.isDecrypted()) return "decrypted";
    switch (*outcome.failure) {
    case TLSDecryptionFailure::noHandshake: return "noHandshake";
    case TLSDecryptionFailure::unsupportedVersion: return "unsupportedVersion";
    case TLSDecryptionFailure::noKeyMaterial: return "noKeyMaterial";
    case TLSDecryptionFailure::keyMismatch: return "keyMismatch";
    }
    std::unreachable();
}

std::string_view verdictText(const TLSDecryptionOutcome& outcome)
{
    if (outcome.isDecrypted()) return "decrypted";
    switch (*outcome.failure) {
    case TLSDecryptionFailure::noHandshake: return "no handshake";
    case TLSDecryptionFailure::unsupportedVersion: return "unsupported version";
    case TLSDecryptionFailure::noKeyMaterial: return "no key material";
    case TLSDecryptionFailure::keyMismatch: return "key mismatch";
    }
    std::unreachable();
}

void writeReason(JSONLineWriter& json, const StreamVerdict& verdict, const StreamSummary& summary)
{
    json.beginObject();
    json.member("sentence", verdictSentence(verdict, summary));
    if (const auto& report = verdict.report) {
        json.member("clientHello", name(report->clientHello));
        json.member("serverHello", name(report->serverHello));
        json.member("clientRandom", report->clientRandom ? std::optional(hexText(*report->clientRandom)) : std::nullopt);
        json.member("serverName", report->serverName);
        json.member("version", report->version ? std::optional(report->versionName) : std::nullopt);
        json.member("cipherSuite", report->cipherSuite ? std::optional(report->cipherSuiteName) : std::nullopt);
        json.member("isSupportedVersion", report->isSupportedVersion);
        json.member("isSupportedSuite", report->isSupportedSuite);
        json.key("secrets");
        json.beginArray();
        for (const TLSSecretReport& secret : report->secrets) {
            json.beginObject();
            json.member("label", secret.label);
            json.member("length", secret.secretLength);
            json.endObject();
        }
        json.endArray();
        json.key("otherLabels");
        json.beginArray();
        for (const std::string& label : report->otherLabels) json.value(label);
        json.endArray();
        writeDirection(json, "client", report->client);
        writeDirection(json, "server", report->server);
    }
    json.key("keyLog");
    if (const auto& keyLog = verdict.keyLog) {
        json.beginObject();
        json.member("secrets", keyLog->material.secrets);
        json.member("clientRandoms", keyLog->material.clientRandoms);
        json.member("connectionsOfThisCapture", keyLog->connections);
        json.key("labels");
        json.beginObject();
        for (const auto& [label, count] : keyLog->material.labels) json.member(label, count);
        json.endObject();
        json.key("problems");
        json.beginArray();
        for (const std::string& problem : keyLog->problems) json.value(problem);
        json.endArray();
        json.endObject();
    } else {
        json.null();
    }
    json.endObject();
}

StreamVerdicts::StreamVerdicts(const Session& session) : session_(session), probes_(TLSDecryptionProbeRegistry::shared().snapshot()) {}

std::optional<StreamVerdict> StreamVerdicts::verdict(const TCPStream& stream, bool walk) const
{
    // Of several probes one that opens the stream counts, else the first.
    const TLSStreamDecryptionProbing* asked = nullptr;
    StreamVerdict verdict;
    for (const auto& probe : probes_) {
        auto report = probe->report(stream, walk);
        const TLSDecryptionOutcome outcome = report && report->outcome ? *report->outcome : probe->probe(stream);
        if (!asked || outcome.isDecrypted()) {
            asked = probe.get();
            verdict.outcome = outcome;
            verdict.report = std::move(report);
        }
        if (outcome.isDecrypted()) break;
    }
    if (!asked) return std::nullopt;
    if (verdict.outcome.failure == TLSDecryptionFailure::noKeyMaterial) verdict.keyLog = keyLogFacts(*asked);
    return verdict;
}

std::unique_ptr<PlaintextReader> StreamVerdicts::plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const
{
    for (const auto& probe : probes_)
        if (auto reader = probe->plaintextReader(stream, direction)) return reader;
    return nullptr;
}

SecretText StreamVerdicts::keyLogLines(const TCPStream& stream) const
{
    for (const auto& probe : probes_)
        if (auto lines = probe->keyLogLines(stream); !lines.empty()) return lines;
    return {};
}

std::optional<TLSDecryptionReport> StreamVerdicts::report(const TCPStream& stream) const
{
    for (const auto& probe : probes_)
        if (auto report = probe->report(stream, false)) return report;
    return std::nullopt;
}

const KeyLogFacts& StreamVerdicts::keyLogFacts(const TLSStreamDecryptionProbing& probe) const
{
    std::call_once(keyLogOnce_, [&] {
        keyLogFacts_.material = probe.keyMaterial();
        if (keyLogFacts_.material.secrets == 0) {
            keyLogFacts_.problems = keyLogProblems();
            return;
        }
        const VELStreamInterpreting* interpreter = tlsInterpreter();
        for (std::int64_t number = 0; number < session_.streamCount(); ++number) {
            const TCPStream stream = session_.stream(number);
            if (interpreter && !interpreter->canInterpret(stream)) continue;
            const auto report = probe.report(stream, false);
            if (report && report->clientRandom && probe.hasSecrets(*report->clientRandom)) ++keyLogFacts_.connections;
        }
    });
    return keyLogFacts_;
}

}  // namespace sealscope::cli
