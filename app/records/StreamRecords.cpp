// SPDX-License-Identifier: Apache-2.0
#include "app/records/StreamRecords.h"

#include "app/records/MessageRecords.h"
#include "app/records/PackedText.h"
#include "app/records/VerdictSentence.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace sealscope {

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

std::string_view name(TLSPrivateKeyReport::Use use)
{
    switch (use) {
    case TLSPrivateKeyReport::Use::fits: return "fits";
    case TLSPrivateKeyReport::Use::otherCertificate: return "otherCertificate";
    case TLSPrivateKeyReport::Use::otherKeyExchange: return "otherKeyExchange";
    case TLSPrivateKeyReport::Use::noKeyExchange: return "noKeyExchange";
    case TLSPrivateKeyReport::Use::notTried: return "notTried";
    }
    std::unreachable();
}

void writeGaps(JSONLineWriter& json, const std::vector<PlaintextGap>& gaps)
{
    json.key("gaps");
    json.beginArray();
    for (const PlaintextGap& gap : gaps) {
        json.beginObject();
        json.key("byteRange");
        json.beginArray();
        json.value(gap.range.lower);
        json.value(gap.range.upper);
        json.endArray();
        json.member("records", gap.records);
        json.member("plaintextBytes", gap.contentLength);
        json.member("isExact", gap.isExact);
        json.member("isLost", gap.isLost);
        json.endObject();
    }
    json.endArray();
}

/// Gaps are told of by who goes on behind them.
void writeDirection(JSONLineWriter& json, std::string_view key, const TLSDirectionReport& direction, DecryptionReach reach)
{
    json.key(key);
    json.beginObject();
    json.member("stop", name(direction.stop));
    json.member("stopOffset", direction.stopOffset);
    json.member("protectedRecords", direction.protectedRecords);
    json.member("openedRecords", direction.openedRecords);
    json.member("skippedRecords", direction.skippedRecords);
    json.member("plaintextBytes", direction.plaintextBytes);
    if (reach == DecryptionReach::full) writeGaps(json, direction.gaps);
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

void writePairing(JSONLineWriter& json, const Pairing& pairing)
{
    json.beginObject();
    json.member("requestIndex", pairing.requestIndex);
    json.member("replyIndex", pairing.replyIndex);
    json.member("summary", pairing.summary);
    json.member("status", pairing.status == PairingStatus::matched ? "matched" : "unmatched");
    json.endObject();
}

/// The pairings of a stream until all of its messages are written, which stand in front.
class PairingsBehind {
public:
    void add(std::vector<Pairing>& pairings)
    {
        constexpr std::size_t many = 4'096;
        std::ranges::move(pairings, std::back_inserter(held_));
        if (packed_ || held_.size() > many) pack();
    }
    void write(JSONLineWriter& json, const Spill& spill)
    {
        if (held_.empty() && !packed_) return json.null();
        json.beginArray();
        for (const Pairing& pairing : held_) writePairing(json, pairing);
        if (packed_) packed_->forEachPiece([&](std::string_view piece) { return json.raw(piece), spill.isWanted(); });
        json.endArray();
    }

private:
    void pack()
    {
        if (held_.empty()) return;
        std::string list;
        JSONLineWriter json(list);
        json.beginArray();
        for (const Pairing& pairing : std::exchange(held_, {})) writePairing(json, pairing);
        json.endArray();
        list.pop_back();
        if (packed_) list.front() = ',';
        if (!packed_) list.erase(0, 1), packed_.emplace();
        packed_->add(list);
    }

    std::vector<Pairing> held_;
    std::optional<PackedText> packed_;
};

void writeReason(JSONLineWriter& json, const StreamVerdict& verdict, const StreamSummary& summary)
{
    json.beginObject();
    json.member("sentence", verdictSentence(verdict, summary));
    json.member("probe", verdict.probe);
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
        if (const auto& keys = report->privateKeys) {
            json.key("privateKeys");
            json.beginObject();
            json.member("use", name(keys->use));
            json.member("certificate", keys->certificate);
            json.endObject();
        }
        if (const auto& search = report->search) {
            json.key("search");
            json.beginObject();
            json.member("candidates", search->candidates);
            json.member("tried", search->tried);
            json.endObject();
        }
        writeDirection(json, "client", report->client, verdict.reach);
        writeDirection(json, "server", report->server, verdict.reach);
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
        for (const KeyLogProblem& problem : keyLog->problems) json.value(problemText(problem));
        json.endArray();
        json.endObject();
    } else {
        json.null();
    }
    json.endObject();
}

void writeFacts(JSONLineWriter& json, const std::vector<StreamFact>& facts)
{
    for (const StreamFact& fact : facts) {
        json.key(fact.name);
        std::visit(
            [&]<class Content>(const Content& content) {
                if constexpr (std::is_same_v<Content, std::monostate>) {
                    json.null();
                } else if constexpr (std::is_same_v<Content, std::vector<std::string>>) {
                    json.beginArray();
                    for (const std::string& text : content) json.value(text);
                    json.endArray();
                } else if constexpr (std::is_same_v<Content, std::vector<StreamFact>>) {
                    json.beginObject();
                    writeFacts(json, content);
                    json.endObject();
                } else {
                    json.value(content);
                }
            },
            fact.value);
    }
}

}  // namespace

std::string_view verdictText(const StreamRow& row, const SentenceReader& reader)
{
    if (row.verdict) return verdictText(*row.verdict, reader);
    return row.canInterpret ? reader.word("not asked") : reader.word("not TLS");
}

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

StreamRow streamRow(const Session& session, const StreamVerdicts& verdicts, std::int64_t number)
{
    const TCPStream stream = session.stream(number);
    StreamRow row{.summary = session.summary(number), .canInterpret = session.plugIns().isSecured(stream)};
    if (row.canInterpret) row.verdict = verdicts.verdict(stream, ReportDepth::opened);
    row.facts = session.plugIns().facts(stream);
    return row;
}

void appendRecord(std::string& text, const StreamRow& row)
{
    const StreamSummary& summary = row.summary;
    JSONLineWriter json(text);
    json.beginObject();
    json.member("stream", summary.number);
    json.member("client", summary.client.text());
    json.member("server", summary.server.text());
    json.member("clientBytes", summary.clientBytes);
    json.member("serverBytes", summary.serverBytes);
    json.member("missingBytes", summary.missingBytes);
    json.member("startTime", summary.startTime);
    json.member("endTime", summary.endTime);
    json.member("packets", summary.packets);
    json.member("contradictingBytes", summary.contradictingBytes);
    json.member("restarts", summary.restarts);
    json.member("hasSYN", summary.hasSYN);
    json.member("canInterpret", row.canInterpret);
    json.member("verdict", row.verdict ? std::optional(verdictName(row.verdict->outcome)) : std::nullopt);
    json.key("reason");
    if (row.verdict)
        writeReason(json, *row.verdict, summary);
    else
        json.null();
    writeFacts(json, row.facts);
    json.endObject();
    text += '\n';
}

void appendRecord(std::string& text, const OpenedStream& opened)
{
    const auto optionalFile = [](const OpenedDirection& direction) {
        return direction.file.empty() ? std::nullopt : std::optional(direction.file);
    };
    JSONLineWriter json(text);
    json.beginObject();
    json.member("stream", opened.summary.number);
    json.member("client", opened.summary.client.text());
    json.member("server", opened.summary.server.text());
    json.member("canInterpret", opened.canInterpret);
    json.member("verdict", opened.verdict ? std::optional(verdictName(opened.verdict->outcome)) : std::nullopt);
    json.key("reason");
    if (opened.verdict)
        writeReason(json, *opened.verdict, opened.summary);
    else
        json.null();
    json.member("clientPlaintextBytes", opened.client.bytes);
    json.member("serverPlaintextBytes", opened.server.bytes);
    json.member("clientFilledBytes", opened.client.filledBytes);
    json.member("serverFilledBytes", opened.server.filledBytes);
    json.member("clientFile", optionalFile(opened.client));
    json.member("serverFile", optionalFile(opened.server));
    json.endObject();
    text += '\n';
}

void appendRecord(std::string& text, std::int64_t stream, const StreamTeller& tell, const Spill& spill)
{
    PairingsBehind pairings;
    JSONLineWriter json(text, spill);
    json.beginObject();
    json.member("stream", stream);
    json.key("messages");
    json.beginArray();
    std::exception_ptr problem;
    try {
        tell([&](StreamPart& part) {
            pairings.add(part.pairings);
            for (const StreamMessage& message : part.messages) {
                json.beginObject();
                writeMembers(json, message, BodyMember::written);
                json.endObject();
                if (!spill.isWanted()) return false;
            }
            return true;
        });
    } catch (...) {
        problem = std::current_exception();
    }
    json.endArray();
    json.key("pairings");
    pairings.write(json, spill);
    json.endObject();
    text += '\n';
    if (problem) std::rethrow_exception(problem);
}

}  // namespace sealscope
