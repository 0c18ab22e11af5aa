// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/JSONLineWriter.h"
#include "app/session/Session.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// What the key logs at hand amount to for one capture.
struct KeyLogFacts {
    TLSKeyMaterialReport material;
    std::int64_t connections = 0;       ///< of the capture, for which they hold a secret
    std::vector<std::string> problems;  ///< with key logs that give nothing, when there is no secret at all
};

/// Whether a stream decrypts, and what lies behind the answer.
struct StreamVerdict {
    TLSDecryptionOutcome outcome;
    std::optional<TLSDecryptionReport> report;  ///< nothing when the probe gives no facts
    std::optional<KeyLogFacts> keyLog;          ///< where the secrets are what is missing
};

/// The verdict as programs read it: "decrypted", "noHandshake", …
std::string_view verdictName(const TLSDecryptionOutcome& outcome);
/// As people read it: "no handshake".
std::string_view verdictText(const TLSDecryptionOutcome& outcome);

/// Writes the facts as one JSON object, a sentence among them.
void writeReason(JSONLineWriter& json, const StreamVerdict& verdict, const StreamSummary& summary);

/// Asks the registered decryption probes about the streams of a session. Any thread may ask.
class StreamVerdicts {
public:
    explicit StreamVerdicts(const Session& session);
    /// Nothing when no probe is registered. `walk` opens both directions to their ends to say how much of them opens.
    std::optional<StreamVerdict> verdict(const TCPStream& stream, bool walk) const;
    /// Opens one direction; null when no probe can.
    std::unique_ptr<PlaintextReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const;
    /// Key log lines with the secrets of a stream's connection; empty when there are none.
    SecretText keyLogLines(const TCPStream& stream) const;
    /// The facts alone; nothing when no probe gives any.
    std::optional<TLSDecryptionReport> report(const TCPStream& stream) const;

private:
    const KeyLogFacts& keyLogFacts(const TLSStreamDecryptionProbing& probe) const;

    const Session& session_;
    std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> probes_;
    mutable std::once_flag keyLogOnce_;
    mutable KeyLogFacts keyLogFacts_;
};

}  // namespace sealscope::cli
