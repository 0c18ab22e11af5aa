// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSRecord.h"
#include "host/VELModels/StreamData.h"
#include "host/VELModels/TCPSegment.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "interpreters/TLSReach/HandshakeAssembler.h"
#include "interpreters/TLSReach/LostBytes.h"
#include "interpreters/TLSReach/RecordOpener.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace sealscope {

class ReachConnection;
struct GuessEffort;

/// Opens the protected records of one direction one after another, and finds the next again where bytes were lost. Used by one
/// thread; outlived by the connection.
class ReachWalk {
public:
    using Direction = TCPSegment::Direction;
    /// A record is tried under so many keys and sequence numbers at the most.
    static constexpr int mostTrials = 64;

    ReachWalk(ReachConnection& connection, Direction direction);
    ~ReachWalk();

    /// Moves on to the next protected record that opens, into `target`, which has room for `roomFor` bytes; without one, into a
    /// buffer of the walk. False at the end.
    bool next(std::uint8_t* target = nullptr);
    /// The connection's stream has grown: `next` goes on in the new bytes.
    void goOn();

    /// Whether one of the next few protected records opens.
    bool opensWithin(GuessEffort effort);

    // Of the record that opened last.
    const TLSRecord& record() const { return record_; }
    std::uint8_t innerType() const { return opened_.type; }
    DataView content() const { return content_; }
    bool isApplicationData() const;
    // What opened it, of a record of application data.
    const std::shared_ptr<RecordOpener>& opener() const { return current_; }
    std::uint64_t sequence() const { return sequence_ - 1; }
    std::int64_t offsetUnderKey() const { return record_.bodyOffset - keyStart_; }
    /// What was stepped over in front of it; after the last one, what is left. Where records can be padded the length of their content
    /// counts as exact when none was that opened.
    const std::optional<PlaintextGap>& gap() const { return gap_; }
    /// The handshake messages that it completed.
    const std::vector<AssembledMessage>& messages() const { return messages_; }

    // Of the walk so far.
    std::int64_t protectedRecords() const { return protectedRecords_; }
    std::int64_t openedRecords() const { return openedRecords_; }
    /// Whether a key for application data is there.
    bool hasKeys() const { return hasKeys_; }
    /// Where a record begins that the data do not hold to its end.
    const std::optional<std::int64_t>& cutFrom() const { return cutFrom_; }
    /// Where what is left over begins, which nothing opens.
    std::int64_t offset() const { return offset_; }
    /// Hello messages of handshakes under encryption, in order: the first thousand, and 2 MiB.
    const std::vector<AssembledMessage>& innerHellos() const { return innerHellos_; }
    /// What trials cost: the bytes that were decrypted for them, and something for each.
    std::int64_t trialBytes() const { return trialBytes_; }
    /// Openings of the record that was tried most.
    std::int64_t mostTried() const { return mostTried_; }

private:
    /// Which keys: of TLS 1.3 0 for early data, 1 for the handshake, from 2 on for application data; else the number of
    /// ChangeCipherSpec records before.
    using Epoch = std::int64_t;
    struct Candidate {
        Epoch epoch = 0;
        std::uint64_t sequence = 0;
    };
    /// What is passed over unopened.
    struct Stretch {
        bool isLost = false;    ///< the capture lacks some of it
        bool isRecord = false;  ///< one, from its header to its end
    };

    bool findRecord();
    bool findRecordAfterLoss();
    bool isPlausible(const TLSRecord& record) const;
    TLSRecord headerAt(std::int64_t offset);
    bool isLost(std::int64_t offset, std::int64_t count) const;
    bool hasLostStretch() const;
    bool isChained(const TLSRecord& record);
    bool isClear(const TLSRecord& record);
    bool tryRecord(std::uint8_t* target);
    bool tryCandidates(const ProtectedRecord& record, std::uint8_t* target);
    bool spend(const ProtectedRecord& record, std::int64_t openings, std::int64_t extraCost);
    bool attempt(const Candidate& candidate, const ProtectedRecord& record, std::uint8_t* target);
    bool isOfPeersCipher(const Candidate& candidate);
    void collectCandidates(const ProtectedRecord& record);
    bool addSaid(Epoch epoch, const ProtectedRecord& record);
    void passUnreadable(const Candidate& candidate);
    void stepOver(std::int64_t end, Stretch stretch);
    void accept(const Candidate& candidate);
    void takeMessages();
    void enter(Epoch epoch);
    Epoch followingEpoch() const;
    bool hasHandshakeSecret() const;
    bool isHopeless() const;
    RecordOpener* openerOf(Epoch epoch);
    std::unique_ptr<RecordOpener> makeOpener(Epoch epoch);
    void settleGap(const Candidate& candidate);
    void settleLastGap();
    void settleSequence(const Candidate& candidate);
    bool isSure(RecordOpener::ContentLength length) const { return length.isExact || (isTLS13_ && openedData_ && !isPadded_); }
    std::uint8_t* room(std::uint8_t* target);

    ReachConnection& connection_;
    Direction direction_;
    const StreamData& data_;
    StreamReader reader_;
    bool isTLS13_ = false;
    LostBytes lost_;
    std::uint16_t recordVersion_ = 0;
    TLS13Draft draft_;

    std::int64_t offset_ = 0;  ///< of the next header
    TLSRecord record_;
    std::vector<DataView> stretches_;
    std::array<std::uint8_t, 64> before_{};

    Epoch epoch_ = 0;
    std::shared_ptr<RecordOpener> current_;
    std::unique_ptr<RecordOpener> following_;  ///< of the epoch behind the current one
    bool hasFollowing_ = false;
    SecretBytes applicationSecret_;  ///< of TLS 1.3: the current epoch's, or the first
    std::int64_t keyStart_ = 0;      ///< where the first header under the current key stands
    bool isFresh_ = true;            ///< nothing opened under the current key
    std::uint64_t sequence_ = 0;     ///< of the next record, if none was lost unseen
    bool isUncertain_ = false;       ///< records may have been lost unseen
    std::int64_t unseenBytes_ = 0;   ///< where these may have stood
    std::int64_t uncertainTries_ = 0;
    bool isFramed_ = true;            ///< the next header follows from the one before
    bool sawLoss_ = false;            ///< since the last record that opened
    std::int64_t typicalRecord_ = 0;  ///< bytes, header included

    std::optional<PlaintextGap> pendingGap_;
    std::uint64_t gapSequence_ = 0;  ///< of the first record in it
    std::optional<PlaintextGap> gap_;
    OpenedRecord opened_;
    DataView content_;
    std::vector<Candidate> candidates_;
    std::int64_t trialsLeft_ = 0;  ///< of the record at hand
    std::int64_t mostTried_ = 0;
    std::int64_t authenticEnd_ = -1;  ///< of the record that authenticated last
    bool isCipherKnown_ = true;       ///< the peers use the one of the suite in the hello
    bool openedData_ = false;
    bool isPadded_ = false;  ///< some record was, of those that can be
    HandshakeAssembler handshake_;
    std::vector<AssembledMessage> messages_;
    std::vector<AssembledMessage> innerHellos_;
    std::int64_t innerHelloBytes_ = 0;
    std::int64_t protectedRecords_ = 0;
    std::int64_t openedRecords_ = 0;
    std::int64_t failedRecords_ = 0;  ///< in a row
    bool openedAny_ = false;
    std::int64_t failuresLeft_ = -1;  ///< records that may fail before the walk ends; negative: as many as do
    int mostTrialsOfRecord_ = mostTrials;
    bool hasKeys_ = false;
    bool hasEnded_ = false;
    std::optional<std::int64_t> cutFrom_;
    std::int64_t trialBudget_ = 0;   ///< bytes
    std::int64_t sharedBudget_ = 0;  ///< bytes, that may still be taken from the allowance of all connections
    std::int64_t lostBytes_ = 0;     ///< in holes that were stepped over to find a record
    std::int64_t trialBytes_ = 0;
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::int64_t bufferSize_ = 0;
};

}  // namespace sealscope
