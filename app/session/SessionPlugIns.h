// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELCommonTools/KeyLogSources.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamFacts.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace sealscope {

/// Whether what is decrypted, or carried inside another stream, is handed to further interpreters.
enum class CarriedStreams : std::uint8_t { interpreted, shownAsBytes };

/// What a session asks of the plug-ins.
struct PlugInOptions {
    DecryptionReach reach = DecryptionReach::full;
    CarriedStreams carried = CarriedStreams::interpreted;
    std::int64_t largestDecodedBody = std::int64_t{1} << 30;  ///< bytes
    std::shared_ptr<DecodingAllowance> decodingAllowance;     ///< of all bodies together; null: as much as they like
    std::int64_t mostHeldOfOne = std::int64_t{16} << 20;      ///< bytes of plaintext of a stream that goes on
};

/// The plug-ins as one session uses them: the interpreters that are registered when it is made, and decryption probes with the
/// secrets of that session alone. Any thread may ask.
class SessionPlugIns final : public StreamHost {
public:
    SessionPlugIns(std::shared_ptr<const KeyLogSources> secrets, const PlugInOptions& options);

    /// The first interpreter that accepts a captured stream, or null.
    const VELStreamInterpreting* interpreter(const TCPStream& stream) const;
    /// The first that accepts a stream which another one carries, or null. `context` says what is known of it.
    const VELStreamInterpreting* interpreterOfCarried(const TCPStream& stream, const StreamContext& context) const;
    /// Whether a stream is protected, so that decryption probes have something to say about it.
    bool isSecured(const TCPStream& stream) const;
    /// What is known of a captured stream before anybody has looked into it.
    StreamContext context() const;

    /// What plug-ins tell of a stream for its row, of every stream the same members.
    std::vector<StreamFact> facts(const TCPStream& stream) const;

    /// The session's probes, those of the least reach first.
    const std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>>& probes() const { return probes_; }
    /// Whether a probe has anything to open streams with: a secret, or means of its own that are no key log.
    bool canOpen(const TLSStreamDecryptionProbing& probe) const;
    const KeyLogSources& secrets() const { return *secrets_; }
    /// Another number whenever a stream that did not open may do so now: secrets came, or a session was learnt that it may resume.
    std::uint64_t secretsGeneration() const { return secrets_->generation() + learntSessions_; }
    /// To be told of when a stream opens that begins a session which others may resume.
    void noteLearntSession() const { ++learntSessions_; }
    /// Calls `show` once, however often and by whomever this is asked, and returns when that is done.
    void showAllStreams(const std::function<void()>& show) const { std::call_once(shown_, show); }

    std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const override;
    std::optional<StreamInterpretation> carriedInterpretation(const TCPStream& stream, const StreamContext& context) const override;
    bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const override;
    bool tellCarried(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const override;
    std::unique_ptr<StreamExchangeReader> carriedExchanges(const TCPStream& stream, const StreamContext& context) const override;
    std::unique_ptr<StreamFollowing> followCarried(const StreamContext& context) const override;
    std::int64_t mostHeldOfOne() const { return options_.mostHeldOfOne; }
    /// Those of what a stream carries under encryption. Null when it does not open.
    std::unique_ptr<StreamExchangeReader> decryptedExchanges(const TCPStream& stream, const StreamContext& context) const;
    /// Those that an interpreter finds in a stream, which it accepts.
    std::unique_ptr<StreamExchangeReader> exchanges(const VELStreamInterpreting& interpreter, const TCPStream& stream,
                                                    const StreamContext& context) const;

    SessionPlugIns(const SessionPlugIns&) = delete;
    SessionPlugIns& operator=(const SessionPlugIns&) = delete;

private:
    std::shared_ptr<const KeyLogSources> secrets_;
    PlugInOptions options_;
    std::vector<const VELStreamInterpreting*> interpreters_;
    std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> probes_;
    std::vector<std::shared_ptr<const StreamDescribing>> describers_ = StreamDescriberRegistry::shared().snapshot();
    mutable std::once_flag shown_;
    mutable std::atomic<std::uint64_t> learntSessions_ = 0;
    std::vector<const TLSStreamDecryptionProbing*> withoutKeyLogs_;  ///< those that have no use for any
};

}  // namespace sealscope
