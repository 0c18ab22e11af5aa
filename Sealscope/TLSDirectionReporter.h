// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSKeyLog.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdint>
#include <optional>

namespace sealscope {

/// Says how far the directions of one stream open, whose version and suite can be opened. Used by one thread at a time;
/// outlived by what it is given.
class TLSDirectionReporter {
public:
    using Direction = TCPSegment::Direction;

    /// What a walk shows while it goes. Whoever walks hands over each step.
    class Progress {
    public:
        void take(TLSDirectionWalk::Step step, const TLSDirectionWalk& walk);
        /// Records that did not open, while later ones did.
        std::int64_t skippedRecords() const { return counts_.skippedRecords; }

    private:
        friend class TLSDirectionReporter;
        /// The first of the records at the end of a direction that do not open.
        struct Refusal {
            std::optional<TLSRecord> record;
            bool followsKeyUpdate = false;
            bool followsRenegotiation = false;
        };
        TLSDirectionReport counts_;
        Refusal refusal_;
        std::int64_t refused_ = 0;  ///< in a row
        bool isAfterKeyUpdate_ = false;
    };

    TLSDirectionReporter(const TCPStream& stream, const TLSStreamDecryption::Context& context, const TLSKeyLog& keyLog)
        : stream_(stream), context_(context), keyLog_(keyLog)
    {}

    /// Opens a direction to its end and reports on it.
    TLSDirectionReport report(Direction direction) const;
    /// Reports on a walk that began at the direction's beginning, and where it got to. Passes over what is left.
    TLSDirectionReport report(Direction direction, TLSDirectionWalk& walk, const Progress& progress) const;

private:
    void settleStop(TLSDirectionReport& report, const TLSFraming& framing, const Progress::Refusal& refusal, Direction direction) const;
    TLSDirectionReport::Stop reason(const TLSDirectionReport& report, const Progress::Refusal& refusal, Direction direction) const;
    bool hasHandshakeSecret(TCPSegment::Direction direction) const;
    bool isEarlyData(const TLSRecord& record) const;
    std::optional<Data> applicationSecret(Direction direction) const;

    const TCPStream& stream_;
    const TLSStreamDecryption::Context& context_;
    const TLSKeyLog& keyLog_;
};

/// Whether some byte of a range lies in a hole.
bool hasLostBytes(const StreamData& data, ByteRange range);
/// The first alert of a direction before anything is encrypted.
std::optional<TLSAlertReport> clearAlert(const StreamData& data);

}  // namespace sealscope
