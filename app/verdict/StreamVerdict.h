// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELCommonTools/MergedKeylog.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// A key log that gives nothing, and what is the matter with it.
struct KeyLogProblem {
    std::string file;
    MergedKeylog::Examination found;
    /// Whether it could not be read at all, rather than having nothing in it.
    bool isUnreadable() const;
};

/// Reads a key log file as far as it takes to know whether it is one; nothing when all is well.
std::optional<KeyLogProblem> keyLogProblem(const std::string& file);

/// What the key logs at hand amount to for one capture.
struct KeyLogFacts {
    TLSKeyMaterialReport material;
    std::int64_t connections = 0;         ///< of the capture, for which they hold a secret
    std::vector<KeyLogProblem> problems;  ///< with key logs that give nothing, when there is no secret at all
};

/// What the secrets of a session amount to, its connections aside; a protected stream that has none of them is told it.
KeyLogFacts keyLogFactsOf(const SessionPlugIns& plugIns);

/// What a user can do about a stream.
enum class Advice : std::uint8_t {
    nothing,              ///< it opens, or nothing that could be done would help
    giveKeyLog,           ///< no secret is at hand
    giveOtherKeyLog,      ///< the secrets at hand are of other connections, or do not fit
    logAllSecrets,        ///< the key log lacks some of the labels that the connection needs
    captureFromTheStart,  ///< the handshake is not in the capture
    captureWithoutLoss,   ///< bytes that were lost stand in the way
};

/// Whether a stream decrypts, and what lies behind the answer.
struct StreamVerdict {
    TLSDecryptionOutcome outcome;
    std::optional<TLSDecryptionReport> report;        ///< nothing when the probe gives no facts
    std::optional<KeyLogFacts> keyLog;                ///< where the secrets are what is missing
    std::string probe;                                ///< name of the probe that answered
    DecryptionReach reach = DecryptionReach::strict;  ///< of that probe

    /// Whether some of the stream opened, and some that could be opened did not.
    bool isPartly() const;
};

Advice adviceOn(const StreamVerdict& verdict);

/// Opens a direction by the probe that has least to do, and goes on by one that reaches farther from the first record on that this
/// one does not open. Used by one thread at a time.
class ProbeReader final : public PlaintextReader {
public:
    using Probe = std::shared_ptr<const TLSStreamDecryptionProbing>;
    using PlaintextReader::next;

    /// With the probes that may be asked, the one with the least reach first; null when none of them can open the direction.
    static std::unique_ptr<ProbeReader> begin(const TCPStream& stream, TCPSegment::Direction direction, std::span<const Probe> probes);

    std::optional<PlaintextRecord> next(std::span<std::uint8_t> room) override;
    std::optional<TLSDirectionReport> report() override;
    /// The probe that answers by now.
    const TLSStreamDecryptionProbing& probe() const { return *probe_; }

private:
    ProbeReader(const TCPStream& stream, TCPSegment::Direction direction, std::span<const Probe> probes)
        : stream_(stream), direction_(direction), left_(probes.begin(), probes.end())
    {}
    bool moveToNextProbe();
    bool hasOpenedAll();

    TCPStream stream_;
    TCPSegment::Direction direction_;
    std::vector<Probe> left_;  ///< that have not been asked
    Probe probe_;
    std::unique_ptr<PlaintextReader> reader_;  ///< of that probe
    std::optional<TLSDirectionReport> report_;
    std::int64_t end_ = 0;  ///< of the last record's body
};

/// Asks the decryption probes of a session about its streams; of several the one that opens most answers. Any thread may ask.
class StreamVerdicts {
public:
    explicit StreamVerdicts(const Session& session) : session_(session) {}
    /// For a session that is a part of a larger capture, whose facts these are.
    StreamVerdicts(const Session& session, KeyLogFacts keyLog) : session_(session), keyLogFacts_(std::move(keyLog))
    {
        std::call_once(keyLogOnce_, [] {});
    }

    /// Nothing when the stream is not protected, or no probe is there. With `ReportDepth::opened` the report counts what opened.
    std::optional<StreamVerdict> verdict(const TCPStream& stream, ReportDepth depth) const;
    /// Opens one direction; null when no probe can.
    std::unique_ptr<ProbeReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const;
    /// Key log lines with the secrets of a stream's connection; empty when there are none.
    SecretText keyLogLines(const TCPStream& stream) const;
    /// What the hellos of a protected stream say; nothing when no probe gives facts.
    std::optional<TLSDecryptionReport> report(const TCPStream& stream) const;

private:
    const KeyLogFacts& keyLogFacts(const TLSStreamDecryptionProbing& probe) const;

    const Session& session_;
    mutable std::once_flag keyLogOnce_;
    mutable KeyLogFacts keyLogFacts_;
};

}  // namespace sealscope
