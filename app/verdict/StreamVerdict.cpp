// SPDX-License-Identifier: Apache-2.0
#include "app/verdict/StreamVerdict.h"

#include "app/session/ResumedSessions.h"
#include "host/VELCommonTools/KeylogLocations.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace sealscope {

namespace {

using Problem = MergedKeylog::Examination::Problem;
using Stop = TLSDirectionReport::Stop;

bool tellsOfGaps(const StreamVerdict& verdict)
{
    return verdict.report && !(verdict.report->client.gaps.empty() && verdict.report->server.gaps.empty());
}

std::int64_t plaintextBytes(const StreamVerdict& verdict) { return verdict.report ? verdict.report->plaintextBytes() : 0; }

StreamVerdict asked(const TLSStreamDecryptionProbing& probe, const TCPStream& stream, ReportDepth depth)
{
    StreamVerdict verdict{.report = probe.report(stream, depth), .probe = std::string(probe.name()), .reach = probe.reach()};
    const bool isKnown = verdict.report && verdict.report->outcome;
    verdict.outcome = isKnown ? *verdict.report->outcome : probe.probe(stream);
    return verdict;
}

/// The key logs of a session that give nothing. The managed one need not exist.
std::vector<KeyLogProblem> problemsOf(const KeyLogSources& sources)
{
    std::vector<KeyLogProblem> problems;
    for (const MergedKeylog::Source& source : sources.files()) {
        if (source.file == KeylogLocations::liveKeylog()) continue;
        const MergedKeylog::Examination found = MergedKeylog::examine(source.file);
        if (found.problem != Problem::none) problems.push_back({source.file, found});
    }
    return problems;
}

}  // namespace

bool KeyLogProblem::isUnreadable() const
{
    return found.problem != Problem::none && found.problem != Problem::isEmpty && found.problem != Problem::noValidLine;
}

std::optional<KeyLogProblem> keyLogProblem(const std::string& file)
{
    const MergedKeylog::Examination found = MergedKeylog::examineBriefly(file);
    if (found.problem == Problem::none) return std::nullopt;
    return KeyLogProblem{file, found};
}

KeyLogFacts keyLogFactsOf(const SessionPlugIns& plugIns)
{
    if (plugIns.probes().empty()) return {};
    // The first probe answers where none opens anything.
    KeyLogFacts facts{.material = plugIns.probes().front()->keyMaterial()};
    if (facts.material.secrets == 0) facts.problems = problemsOf(plugIns.secrets());
    return facts;
}

bool StreamVerdict::isPartly() const { return outcome.isDecrypted() && report && !report->openedEverything(); }

Advice adviceOn(const StreamVerdict& verdict)
{
    const auto& report = verdict.report;
    if (verdict.outcome.isDecrypted()) {
        if (!report) return Advice::nothing;
        const auto stoppedBy = [&](Stop stop) { return report->client.stop == stop || report->server.stop == stop; };
        if (stoppedBy(Stop::noSecret) || stoppedBy(Stop::noHandshakeSecret)) return Advice::logAllSecrets;
        return stoppedBy(Stop::lostBytes) ? Advice::captureWithoutLoss : Advice::nothing;
    }
    switch (*verdict.outcome.failure) {
    case TLSDecryptionFailure::noHandshake: {
        using Hello = TLSDecryptionReport::Hello;
        const auto isCut = [](Hello hello) { return hello == Hello::cutByData; };
        return report && (isCut(report->clientHello) || isCut(report->serverHello)) ? Advice::captureWithoutLoss
                                                                                    : Advice::captureFromTheStart;
    }
    case TLSDecryptionFailure::unsupportedVersion: return Advice::nothing;
    case TLSDecryptionFailure::noKeyMaterial: {
        if (!verdict.keyLog || verdict.keyLog->material.secrets == 0) return Advice::giveKeyLog;
        const bool hasSome = report && (!report->otherLabels.empty() || std::ranges::any_of(report->secrets, [](const auto& secret) {
                                 return secret.secretLength.has_value();
                             }));
        return hasSome ? Advice::logAllSecrets : Advice::giveOtherKeyLog;
    }
    case TLSDecryptionFailure::keyMismatch:
        if (report && !report->isSupportedSuite) return Advice::nothing;
        if (report && (report->client.stop == Stop::noHandshakeSecret || report->server.stop == Stop::noHandshakeSecret))
            return Advice::logAllSecrets;
        return Advice::giveOtherKeyLog;
    }
    std::unreachable();
}

std::optional<StreamVerdict> StreamVerdicts::verdict(const TCPStream& stream, ReportDepth depth) const
{
    if (!session_.plugIns().isSecured(stream)) return std::nullopt;
    std::optional<StreamVerdict> best;
    const TLSStreamDecryptionProbing* answering = nullptr;
    for (const auto& probe : session_.plugIns().probes()) {
        // Who has no secret at all opens nothing.
        if (answering && !session_.plugIns().canOpen(*probe)) continue;
        StreamVerdict verdict = asked(*probe, stream, depth);
        // Of two that open as much, the one that says what is missing says more.
        const bool opensMore = best && verdict.outcome.isDecrypted() &&
                               (!best->outcome.isDecrypted() || plaintextBytes(verdict) > plaintextBytes(*best) ||
                                (plaintextBytes(verdict) == plaintextBytes(*best) && tellsOfGaps(verdict)));
        if (!best || opensMore) {
            best = std::move(verdict);
            answering = probe.get();
        } else if (best->report && verdict.report) {
            // Only who can use private keys knows what is the matter with them, and only who looks for secrets how many there were.
            if (verdict.report->privateKeys) best->report->privateKeys = std::move(verdict.report->privateKeys);
            if (verdict.report->search) best->report->search = verdict.report->search;
        }
        // Nobody opens more than everything.
        if (best->outcome.isDecrypted() && (depth == ReportDepth::hellos || !best->isPartly())) break;
    }
    if (best && best->outcome.failure == TLSDecryptionFailure::noKeyMaterial) {
        // Those of TLS 1.3 have secrets of their own.
        const bool mayBeResumed = best->report && best->report->version && *best->report->version <= 0x0303;
        if (mayBeResumed && foundResumedSession(session_, stream)) return verdict(stream, depth);
        best->keyLog = keyLogFacts(*answering);
    }
    return best;
}

std::unique_ptr<ProbeReader> ProbeReader::begin(const TCPStream& stream, TCPSegment::Direction direction, std::span<const Probe> probes)
{
    // Behind lost bytes only the one that reaches farthest can go on.
    if (probes.size() > 1 && stream.data(direction).holeBytes() > 0)
        if (auto reader = begin(stream, direction, probes.last(1))) return reader;
    std::unique_ptr<ProbeReader> reader(new ProbeReader(stream, direction, probes));
    return reader->moveToNextProbe() ? std::move(reader) : nullptr;
}

bool ProbeReader::moveToNextProbe()
{
    while (!left_.empty()) {
        const Probe probe = left_.front();
        left_.erase(left_.begin());
        auto reader = probe->plaintextReader(stream_, direction_);
        if (!reader) continue;
        reader_ = std::move(reader);
        probe_ = probe;
        report_.reset();
        return true;
    }
    return false;
}

std::optional<PlaintextRecord> ProbeReader::next(std::span<std::uint8_t> room)
{
    while (true) {
        auto record = reader_->next(room);
        const bool isUnclear = record ? reader_->hasPassedOver() : !left_.empty() && !hasOpenedAll();
        if (isUnclear && moveToNextProbe()) continue;
        if (!record) return std::nullopt;
        if (record->body.lower < end_) continue;  // the probe before gave it
        end_ = record->body.upper;
        return record;
    }
}

bool ProbeReader::hasOpenedAll()
{
    const auto opened = report();
    if (!opened || opened->skippedRecords > 0) return false;
    return opened->stop == Stop::endOfData || opened->stop == Stop::nothingProtected || opened->stop == Stop::cutRecord;
}

std::optional<TLSDirectionReport> ProbeReader::report()
{
    if (!report_) report_ = reader_->report();
    return report_;
}

std::unique_ptr<ProbeReader> StreamVerdicts::plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const
{
    const auto& probes = session_.plugIns().probes();
    auto reader = ProbeReader::begin(stream, direction, probes);
    if (!reader && foundResumedSession(session_, stream)) reader = ProbeReader::begin(stream, direction, probes);
    return reader;
}

SecretText StreamVerdicts::keyLogLines(const TCPStream& stream) const
{
    for (const auto& probe : session_.plugIns().probes() | std::views::reverse)
        if (auto lines = probe->keyLogLines(stream); !lines.empty()) return lines;
    return foundResumedSession(session_, stream) ? keyLogLines(stream) : SecretText();
}

std::optional<TLSDecryptionReport> StreamVerdicts::report(const TCPStream& stream) const
{
    for (const auto& probe : session_.plugIns().probes())
        if (auto report = probe->report(stream, ReportDepth::hellos)) return report;
    return std::nullopt;
}

const KeyLogFacts& StreamVerdicts::keyLogFacts(const TLSStreamDecryptionProbing& probe) const
{
    std::call_once(keyLogOnce_, [&] {
        keyLogFacts_.material = probe.keyMaterial();
        if (keyLogFacts_.material.secrets == 0) {
            keyLogFacts_.problems = problemsOf(session_.plugIns().secrets());
            return;
        }
        for (std::int64_t number = 0; number < session_.streamCount(); ++number) {
            const TCPStream stream = session_.stream(number);
            if (!session_.plugIns().isSecured(stream)) continue;
            const auto report = probe.report(stream, ReportDepth::hellos);
            if (report && report->clientRandom && probe.hasSecrets(*report->clientRandom)) ++keyLogFacts_.connections;
        }
    });
    return keyLogFacts_;
}

}  // namespace sealscope
