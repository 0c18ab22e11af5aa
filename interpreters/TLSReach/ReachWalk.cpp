// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachWalk.h"

#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "interpreters/TLSReach/ReachConnection.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

// A record opens under one key and one sequence number, and whoever has both needs no more than the record's bytes. As long as
// nothing is missing both are known before. Where the capture lost bytes, two things may happen to the records behind them:
//
//     | header | body .. lost .. body | header |     the header is there and says how long the record is: the next one follows, and
//                                                    its sequence number too
//     | header | bo .. lost .. | ody | header |      a header was lost, and with it how many records there were: whatever looks
//                                                    like a header, with another where it says that the next one is, is tried under
//                                                    the sequence numbers that fit the number of bytes, the likeliest first
//
// Nothing counts but what authenticates, so a wrong guess costs time alone. How much is bounded three times: a record gets 64 trials;
// all trials together cost no more than 16 times the bytes that the walk has passed, holes not counted; and what is needed beyond
// that, in short connections above all, comes out of an allowance that all connections share.

namespace sealscope {

namespace {

constexpr std::uint8_t type(TLSContentType contentType) { return std::to_underlying(contentType); }
constexpr std::uint8_t changeCipherSpec = type(TLSContentType::changeCipherSpec);
constexpr std::uint8_t handshakeType = type(TLSContentType::handshake);
constexpr std::uint8_t applicationData = type(TLSContentType::applicationData);

constexpr std::int64_t longestTLS13Body = 16'384 + 256;    // RFC 8446 §5.2
constexpr std::int64_t longestTLS12Body = 16'384 + 2'048;  // RFC 5246 §6.2.3
constexpr std::int64_t smallBuffer = longestTLS12Body;
constexpr std::int64_t trialsPerByte = 16;
constexpr std::int64_t costOfTrial = 1'024;  // what an attempt takes whatever the record's length, in bytes
constexpr std::int64_t mostShared = 64 * longestTLS12Body;

constexpr std::int64_t mostFailures = 64;  // records
constexpr std::int64_t fewTrials = 4;
constexpr std::int64_t rounds = 8;

constexpr std::int64_t early = 0, handshake = 1, application = 2;

constexpr std::int64_t mostKeyUpdates = 10'000;  // a direction has one in 16 million records, if any
constexpr std::int64_t mostInnerHellos = 1'000;
constexpr std::int64_t mostInnerHelloBytes = 2 << 20;

constexpr std::int64_t lengthOfVerifyData = 12;  // RFC 5246 §7.4.9
constexpr std::int64_t lengthOfSSL3Hashes = 36;  // RFC 6101 §5.6.9
constexpr std::uint8_t endOfEarlyData = 5;       // RFC 8446 §4.5
constexpr std::uint8_t keyUpdate = 24;           // RFC 8446 §4.6.3

}  // namespace

ReachWalk::~ReachWalk()
{
    if (failuresLeft_ < 0) connection_.secrets().allowance->giveBack(offset_ - lostBytes_);
}

ReachWalk::ReachWalk(ReachConnection& connection, Direction direction)
    : connection_(connection), direction_(direction), data_(connection.stream().data(direction)), reader_(data_), lost_(data_),
      sharedBudget_(mostShared)
{
    const auto& parameters = connection.parameters();
    hasEnded_ = !parameters || !parameters->suite;
    if (hasEnded_) return;
    isTLS13_ = parameters->isTLS13();
    draft_ = TLS13Draft::of(parameters->version);
    recordVersion_ = isTLS13_ ? draft_.recordVersion : parameters->version;
    isCipherKnown_ = !parameters->authenticatesBytesSent() || parameters->isSuiteKnown;
    if (!isTLS13_) {
        hasKeys_ = connection.hasKeyMaterial();
        return;
    }
    const TLSSecretLabels labels = secretLabels(direction);
    if (const auto secret = connection.trafficSecret(labels.application))
        applicationSecret_.assign(secret->view().begin(), secret->view().end());
    const bool isEarly =
        direction == Direction::clientToServer && parameters->offersEarlyData && connection.trafficSecret("CLIENT_EARLY_TRAFFIC_SECRET");
    hasKeys_ = isEarly || !applicationSecret_.empty();
    // Without the handshake's secret the application's keys are tried from the first record on.
    enter(isEarly ? early : hasHandshakeSecret() ? handshake : application);
    isUncertain_ = !connection.isThereFromTheStart(direction);
}

bool ReachWalk::hasHandshakeSecret() const { return connection_.trafficSecret(secretLabels(direction_).handshake).has_value(); }

ReachWalk::Epoch ReachWalk::followingEpoch() const
{
    return isTLS13_ && epoch_ == early && !hasHandshakeSecret() ? application : epoch_ + 1;
}

std::unique_ptr<RecordOpener> ReachWalk::makeOpener(Epoch epoch)
{
    if (!isTLS13_) return connection_.openerAfterChange(direction_, epoch);
    const auto& parameters = *connection_.parameters();
    if (epoch >= application) {
        if (applicationSecret_.empty() || epoch > application + mostKeyUpdates) return nullptr;
        if (epoch == application || epoch == epoch_) return makeTLS13Opener(*parameters.suite, draft_, viewOf(applicationSecret_));
        return makeTLS13Opener(*parameters.suite, draft_, viewOf(nextTrafficSecret(*parameters.suite, draft_, viewOf(applicationSecret_))));
    }
    const auto secret = connection_.trafficSecret(epoch == early ? "CLIENT_EARLY_TRAFFIC_SECRET" : secretLabels(direction_).handshake);
    return secret ? makeTLS13Opener(*parameters.suite, draft_, *secret) : nullptr;
}

void ReachWalk::enter(Epoch epoch)
{
    if (isTLS13_ && epoch > application && epoch == epoch_ + 1)
        applicationSecret_ = nextTrafficSecret(*connection_.parameters()->suite, draft_, viewOf(applicationSecret_));
    const bool isFollowing = hasFollowing_ && epoch == followingEpoch();
    epoch_ = epoch;
    current_ = isFollowing ? std::move(following_) : makeOpener(epoch);
    following_.reset();
    hasFollowing_ = false;
    sequence_ = 0;
    isFresh_ = true;
    isUncertain_ = false;
    unseenBytes_ = uncertainTries_ = 0;
    keyStart_ = offset_;
}

RecordOpener* ReachWalk::openerOf(Epoch epoch)
{
    if (epoch == epoch_) return current_.get();
    if (!std::exchange(hasFollowing_, true)) following_ = makeOpener(followingEpoch());
    return following_.get();
}

TLSRecord ReachWalk::headerAt(std::int64_t offset) { return recordAt(reader_, offset, data_.size()); }

bool ReachWalk::isPlausible(const TLSRecord& record) const
{
    if (record.contentType < changeCipherSpec || record.contentType > applicationData || record.majorVersion != 3) return false;
    if (record.declaredLength == 0) return record.contentType == applicationData;
    if (isTLS13_ && record.contentType == applicationData) return record.declaredLength <= longestTLS13Body;
    return record.declaredLength <= longestTLS12Body;
}

bool ReachWalk::isLost(std::int64_t offset, std::int64_t count) const
{
    return lost_.isLost(offset) || lost_.isLost(std::min(offset + count, data_.size()) - 1);
}

/// Whether the bytes behind a record are a header, or may have been one.
bool ReachWalk::isChained(const TLSRecord& record)
{
    const std::int64_t end = record.endOffset();
    if (end > data_.size()) return false;
    if (data_.size() - end < TLSRecord::headerLength) return true;
    if (isLost(end, TLSRecord::headerLength)) return true;
    return isPlausible(headerAt(end));
}

bool ReachWalk::findRecord()
{
    if (!isFramed_) return findRecordAfterLoss();
    if (data_.size() - offset_ < TLSRecord::headerLength) {
        if (data_.size() > offset_) cutFrom_ = offset_;
        return false;
    }
    record_ = headerAt(offset_);
    // Lost bytes read as zeros, so that a header whose beginning is lost is not plausible, and one whose end is lost ends in one.
    const bool mayBeCut = (record_.declaredLength & 0xFF) == 0;
    if (isPlausible(record_) && !(mayBeCut && isLost(offset_, TLSRecord::headerLength))) {
        if (!record_.isTruncated) return true;
        cutFrom_ = offset_;
        return false;
    }
    isFramed_ = false;
    return findRecordAfterLoss();
}

// A header by chance is rare: of type and version alone there is one in 2^24 bytes, and of two that fit each other none.
bool ReachWalk::findRecordAfterLoss()
{
    const std::int64_t from = offset_;
    std::int64_t at = from;
    bool isLossy = false;
    while (data_.size() - at >= TLSRecord::headerLength) {
        if (lost_.isLost(at)) {
            isLossy = true;
            const std::int64_t end = lost_.endOfLoss(at);
            lostBytes_ += end - std::exchange(at, end);
            continue;
        }
        // The bytes in one place are looked through for the version, which all of the headers have.
        const DataView stretch = data_.stretch(at);
        const auto* const found =
            static_cast<const std::uint8_t*>(std::memchr(stretch.data(), 3, static_cast<std::size_t>(stretch.size())));
        const std::int64_t start = found ? at + (found - stretch.data()) - 1 : at + stretch.size() - 1;
        at += found ? (found - stretch.data()) + 1 : stretch.size();
        if (start < from) continue;
        const TLSRecord record = headerAt(start);
        const bool hasVersion = record.version() == recordVersion_ && !(isTLS13_ && record.contentType != applicationData);
        if (!hasVersion || !isPlausible(record) || isLost(start, TLSRecord::headerLength) || !isChained(record)) continue;
        stepOver(start, {.isLost = isLossy});
        record_ = record;
        return true;
    }
    stepOver(data_.size(), {.isLost = isLossy});
    return false;
}

/// Passes over bytes up to `end`: whole records, or who knows what.
void ReachWalk::stepOver(std::int64_t end, Stretch stretch)
{
    if (end <= offset_) return;
    if (!pendingGap_) {
        pendingGap_ = PlaintextGap{.range = {offset_, offset_}, .isExact = true};
        gapSequence_ = sequence_;
    }
    pendingGap_->range.upper = end;
    pendingGap_->isLost = pendingGap_->isLost || stretch.isLost;
    if (stretch.isRecord) {
        ++pendingGap_->records;
        if (current_ && record_.contentType == applicationData) {
            const auto length = current_->contentLength(record_.declaredLength);
            pendingGap_->contentLength += length.bytes;
            pendingGap_->isExact = pendingGap_->isExact && isSure(length);
        }
    } else {
        isUncertain_ = true;
        unseenBytes_ += end - offset_;
    }
    sawLoss_ = true;
    handshake_.reset();
    offset_ = end;
}

/// Whether a record is not under encryption; a ChangeCipherSpec of TLS 1.2 changes the keys.
bool ReachWalk::isClear(const TLSRecord& record)
{
    if (isTLS13_) return record.contentType != applicationData;
    if (epoch_ > 0) return false;
    if (record.contentType == changeCipherSpec) {
        offset_ = record.endOffset();
        enter(1);
        return true;
    }
    if (record.contentType == applicationData) return false;
    // A lost ChangeCipherSpec leaves records behind it that look like others.
    return !sawLoss_;
}

std::uint8_t* ReachWalk::room(std::uint8_t* target)
{
    if (target) return target;
    if (bufferSize_ < record_.declaredLength) {
        bufferSize_ = std::max({record_.declaredLength, 2 * bufferSize_, smallBuffer});
        buffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(bufferSize_));
    }
    return buffer_.get();
}

bool ReachWalk::next(std::uint8_t* target)
{
    gap_.reset();
    messages_.clear();
    content_ = {};
    while (!hasEnded_) {
        const std::int64_t before = offset_ - lostBytes_;
        const auto passed = [&] { return offset_ - lostBytes_ - before; };
        if (!findRecord()) {
            hasEnded_ = true;
            settleLastGap();
            return false;
        }
        if (isClear(record_)) {
            offset_ = record_.endOffset();
            isFramed_ = true;
        } else {
            if (record_.contentType == applicationData) ++protectedRecords_;
            if (tryRecord(target)) {
                if (failuresLeft_ < 0) trialBudget_ += trialsPerByte * passed();
                return true;
            }
            if (failuresLeft_ > 0 && --failuresLeft_ == 0) hasEnded_ = true;
        }
        if (failuresLeft_ < 0) trialBudget_ += trialsPerByte * passed();
    }
    return false;
}

void ReachWalk::goOn()
{
    reader_ = StreamReader(data_);
    lost_ = LostBytes(data_);
    hasEnded_ = false;
    cutFrom_.reset();
}

bool ReachWalk::opensWithin(GuessEffort effort)
{
    failuresLeft_ = effort.records;
    mostTrialsOfRecord_ = effort.trials;
    trialBudget_ = std::numeric_limits<std::int64_t>::max();
    return next();
}

bool ReachWalk::attempt(const Candidate& candidate, const ProtectedRecord& record, std::uint8_t* target)
{
    RecordOpener* const opener = openerOf(candidate.epoch);
    if (!opener || record.body.size() < opener->smallestBody()) return false;
    const auto opened = opener->open(candidate.sequence, record, target);
    if (!opened) return false;
    opened_ = *opened;
    content_ = {target, opened_.length};
    return isOfPeersCipher(candidate);
}

/// With the MAC behind the blocks (RFC 7366), and without a cipher, records authenticate under any suite that has this MAC, also where a
/// damaged hello names one that the peers do not use. What tells is Finished, the first record under the keys (RFC 5246 §7.1). Where it
/// was lost, it has to do that the suite is known otherwise, until a record's padding says that it is not.
bool ReachWalk::isOfPeersCipher(const Candidate& candidate)
{
    // The hellos of a handshake inside the encryption cannot be damaged.
    if (isTLS13_ || candidate.epoch != 1 || !connection_.parameters()->authenticatesBytesSent()) return true;
    const bool isSSL3 = recordVersion_ == 0x0300;
    const std::int64_t length = isSSL3 ? lengthOfSSL3Hashes : lengthOfVerifyData;
    const std::int64_t headerOfFinished = std::int64_t{std::to_underlying(TLSHandshakeType::finished)} << 24 | length;
    if (!opened_.isOfCipher)
        isCipherKnown_ = false;
    else if (candidate.sequence == 0)
        isCipherKnown_ = opened_.type == handshakeType && content_.size() == 4 + length && content_.u32(0) == headerOfFinished;
    return isCipherKnown_;
}

/// Takes openings of a record off what it and the walk may cost; false when there is nothing left.
bool ReachWalk::spend(const ProtectedRecord& record, std::int64_t openings, std::int64_t extraCost)
{
    const std::int64_t perByte = connection_.parameters()->suite->costPerByte();
    const std::int64_t cost = openings * (record.body.size() * perByte + costOfTrial) + extraCost * perByte;
    if (openings > trialsLeft_) return false;
    if (cost <= trialBudget_)
        trialBudget_ -= cost;
    else if (cost <= sharedBudget_ && connection_.secrets().allowance->take(cost))
        sharedBudget_ -= cost;
    else
        return false;
    trialsLeft_ -= openings;
    trialBytes_ += cost;
    return true;
}

/// The number that a record says it has; whether no other needs to be tried.
bool ReachWalk::addSaid(Epoch epoch, const ProtectedRecord& record)
{
    RecordOpener* const opener = openerOf(epoch);
    if (!opener || record.body.size() < opener->smallestBody()) return true;
    if (!spend(record, opener->openingsToSay(), 0)) return true;
    if (const auto said = opener->sequenceOf(record)) candidates_.push_back({epoch, *said});
    return opener->openingsToSay() > 0;
}

/// What a record that the expected key and number do not open is tried under, the likeliest first.
void ReachWalk::collectCandidates(const ProtectedRecord& record)
{
    candidates_.clear();
    const auto add = [&](Epoch epoch, std::uint64_t sequence) { candidates_.push_back({epoch, sequence}); };
    // The last record under a key may have been lost, or nobody has its secret.
    const bool mayFollow = isTLS13_ || epoch_ == 0 || (sawLoss_ && !innerHellos_.empty());
    const bool isSettled = isUncertain_ && addSaid(epoch_, record);
    const bool isFollowingSettled = mayFollow && (sawLoss_ || isUncertain_) && addSaid(followingEpoch(), record);
    const std::int64_t trials = trialsLeft_;
    if (isUncertain_ && !isSettled && current_) {
        // By turns from none upwards, and around what the bytes make likely. A record that nothing opens leaves the numbers further
        // away to the next, so that a wide gap is searched through over several records, and again in case one was no record at all.
        const std::int64_t smallest = TLSRecord::headerLength + current_->smallestBody();
        const std::int64_t most = unseenBytes_ / smallest + 1;
        const std::int64_t likely = isFresh_ ? 0 : unseenBytes_ / std::max(typicalRecord_, smallest);
        const std::int64_t share = trials * 2 / 5, from = uncertainTries_ % rounds * share;
        for (std::int64_t i = from; i < from + share; ++i) {
            const std::int64_t distance = (i + 1) / 2;
            const std::int64_t near = i % 2 == 1 ? likely - distance : likely + distance;
            if (i <= most) add(epoch_, sequence_ + static_cast<std::uint64_t>(i));
            // What the other series has come to already is not tried again.
            if (near >= from + share && near <= most) add(epoch_, sequence_ + static_cast<std::uint64_t>(near));
        }
    }
    if (!mayFollow || isFollowingSettled) return;
    add(followingEpoch(), 0);
    if (!sawLoss_ && !isUncertain_) return;
    for (std::uint64_t sequence = 1; std::ssize(candidates_) < trials; ++sequence) add(followingEpoch(), sequence);
}

/// Whether a hole reaches into the record's body. A hole is a stretch of zeros, so that few others have to be looked up.
bool ReachWalk::hasLostStretch() const
{
    std::int64_t offset = record_.bodyOffset;
    for (const DataView& stretch : stretches_) {
        if (lost_.isLost(offset, stretch)) return true;
        offset += stretch.size();
    }
    return false;
}

bool ReachWalk::tryRecord(std::uint8_t* target)
{
    data_.findStretches(record_.bodyOffset, record_.declaredLength, stretches_);
    bool isCut = hasLostStretch();
    ProtectedRecord record{.header = {record_.contentType, record_.majorVersion, record_.minorVersion,
                                      static_cast<std::uint8_t>(record_.declaredLength >> 8),
                                      static_cast<std::uint8_t>(record_.declaredLength)},
                           .body = ScatteredView(stretches_),
                           .followsAuthentic = authenticEnd_ == record_.recordOffset,
                           .offsetUnderKey = offsetUnderKey()};
    // A record without an IV of its own has that of the one before, which ends in it.
    const auto& parameters = *connection_.parameters();
    if (!isTLS13_ && recordVersion_ <= 0x0301 && parameters.suite->protection == RecordProtection::cbc) {
        const std::int64_t needed =
            blockSize(parameters.suite->bulk) + (parameters.encryptsThenMACs ? digestSize(parameters.suite->mac) : 0);
        const std::int64_t count = std::min(record_.recordOffset, needed);
        const std::int64_t from = record_.recordOffset - count;
        const bool isIVLost = !isFresh_ && lost_.anyOf({from, record_.recordOffset});
        // With the MAC behind the blocks it authenticates all the same, and is the IV of the next.
        isCut = isCut || (isIVLost && !parameters.encryptsThenMACs);
        data_.copy(from, std::span(before_).first(static_cast<std::size_t>(count)));
        if (!isIVLost) record.bytesBefore = {before_.data(), count};
    }
    // Who is sent a record of another version than was agreed upon does not take it.
    const bool isOfVersion = isTLS13_ || record_.version() == recordVersion_;
    if (!isCut && isOfVersion && !isHopeless()) {
        if (tryCandidates(record, room(target))) return opened_.isReadable;
        ++failedRecords_;
        if (isUncertain_) ++uncertainTries_;
    }
    // Where the next header stands as this one says, this was a record, and counts.
    if (isChained(record_) && (isFramed_ || !isLost(record_.endOffset(), TLSRecord::headerLength))) {
        const bool isUnexplained = !isCut && !isUncertain_ && (isTLS13_ || epoch_ > 0);
        stepOver(record_.endOffset(), {.isLost = isCut, .isRecord = true});
        if (isUnexplained) {
            // Perhaps it counts for its receiver, and perhaps it belongs under keys that nobody has.
            isUncertain_ = true;
            unseenBytes_ = TLSRecord::headerLength + record_.declaredLength;
        } else if (isUncertain_) {
            unseenBytes_ += TLSRecord::headerLength + record_.declaredLength;
        } else if (isTLS13_ || epoch_ > 0) {
            ++sequence_;
        }
        isFramed_ = true;
    } else {
        if (record_.contentType == applicationData) --protectedRecords_;
        isFramed_ = false;
        stepOver(record_.recordOffset + 1, {.isLost = isCut});
    }
    return false;
}

/// Whether a record opens, or authenticates at least; the walk is behind it then.
bool ReachWalk::tryCandidates(const ProtectedRecord& record, std::uint8_t* target)
{
    // Where so many records in a row do not open, more of the same is not likely to help.
    const std::int64_t trials = failedRecords_ < mostFailures ? mostTrialsOfRecord_ : fewTrials;
    trialsLeft_ = trials;
    const auto opens = [&](const Candidate& candidate) {
        if (!attempt(candidate, record, target)) return false;
        if (opened_.isReadable)
            accept(candidate);
        else
            passUnreadable(candidate);
        return true;
    };
    bool isOpen = false;
    if (isFramed_ && !isUncertain_) {
        --trialsLeft_;
        isOpen = opens({epoch_, sequence_});
    }
    if (!isOpen) {
        collectCandidates(record);
        for (const Candidate& candidate : candidates_) {
            RecordOpener* const opener = openerOf(candidate.epoch);
            if (!opener) continue;
            if (!spend(record, 1, opener->extraCost(candidate.sequence, record))) break;
            if ((isOpen = opens(candidate))) break;
        }
    }
    mostTried_ = std::max(mostTried_, trials - trialsLeft_);
    return isOpen;
}

/// A record whose content nothing authenticates, but which itself does: what follows it is certain again.
void ReachWalk::passUnreadable(const Candidate& candidate)
{
    if (pendingGap_) {
        settleGap(candidate);
        pendingGap_ = std::exchange(gap_, std::nullopt);
    }
    if (candidate.epoch != epoch_) {
        offset_ = record_.recordOffset;
        enter(candidate.epoch);
    }
    stepOver(record_.endOffset(), {.isRecord = true});
    settleSequence(candidate);
    failedRecords_ = 0;
    openedAny_ = true;
}

/// Where nothing at all opens the secrets are not this connection's.
bool ReachWalk::isHopeless() const { return openedAny_ ? false : failedRecords_ >= mostFailures; }

void ReachWalk::settleGap(const Candidate& candidate)
{
    gap_ = std::exchange(pendingGap_, std::nullopt);
    if (!gap_) return;
    const auto nobodyKnows = [&] {
        gap_->contentLength = 0;
        gap_->isExact = false;
    };
    // Of what stood there, handshake or data, before a key was used.
    if (candidate.epoch != epoch_ || isFresh_ || !current_) return nobodyKnows();
    if (isPadded_) gap_->isExact = false;
    if (!isUncertain_) return;
    // The sequence number says how many records stood in bytes of which nobody saw the headers.
    const std::uint64_t missed = candidate.sequence - gapSequence_;
    const std::int64_t smallest = TLSRecord::headerLength + current_->smallestBody();
    if (missed > static_cast<std::uint64_t>(gap_->range.size() / smallest)) return nobodyKnows();
    gap_->records = static_cast<std::int64_t>(missed);
    const std::int64_t bodies = gap_->range.size() - gap_->records * TLSRecord::headerLength;
    if (bodies > gap_->records * longestTLS12Body) return nobodyKnows();
    const auto one = current_->contentLength(bodies);
    const std::int64_t overhead = bodies - one.bytes;
    gap_->contentLength = std::max<std::int64_t>(bodies - gap_->records * overhead, 0);
    gap_->isExact = isSure(one);
}

/// Behind the last record that opened only what still has its framing can be counted.
void ReachWalk::settleLastGap()
{
    gap_ = std::exchange(pendingGap_, std::nullopt);
    if (!gap_ || (!isUncertain_ && !isFresh_ && isFramed_ && current_)) return;
    gap_->contentLength = 0;
    gap_->isExact = false;
}

void ReachWalk::settleSequence(const Candidate& candidate)
{
    sequence_ = candidate.sequence + 1;
    isUncertain_ = isFresh_ = false;
    unseenBytes_ = uncertainTries_ = 0;
    isFramed_ = true;
    authenticEnd_ = record_.endOffset();
}

void ReachWalk::accept(const Candidate& candidate)
{
    if (isTLS13_ && current_ && opened_.length < current_->contentLength(record_.declaredLength).bytes) isPadded_ = true;
    if (pendingGap_) settleGap(candidate);
    if (candidate.epoch != epoch_) {
        offset_ = record_.recordOffset;
        enter(candidate.epoch);
    }
    settleSequence(candidate);
    sawLoss_ = false;
    openedAny_ = true;
    failedRecords_ = 0;
    openedData_ = openedData_ || opened_.type == applicationData;
    if (record_.contentType == applicationData) ++openedRecords_;
    const std::int64_t length = TLSRecord::headerLength + record_.declaredLength;
    typicalRecord_ = typicalRecord_ == 0 ? length : (7 * typicalRecord_ + length) / 8;
    offset_ = record_.endOffset();
    if (opened_.type == handshakeType)
        takeMessages();
    else if (!isTLS13_ && opened_.type == changeCipherSpec)
        enter(epoch_ + 1);  // of a handshake inside the encryption (RFC 5246 §7.1)
}

void ReachWalk::takeMessages()
{
    handshake_.add(content_, {record_.bodyOffset, record_.endOffset()}, messages_);
    for (const AssembledMessage& message : messages_) {
        if (!isTLS13_) {
            const bool isHello = message.type == std::to_underlying(TLSHandshakeType::clientHello) ||
                                 message.type == std::to_underlying(TLSHandshakeType::serverHello);
            if (!isHello) continue;
            // Handshakes are counted by them, so that behind one that is left out none is kept.
            innerHelloBytes_ += message.body.size();
            if (std::ssize(innerHellos_) < mostInnerHellos && innerHelloBytes_ <= mostInnerHelloBytes) innerHellos_.push_back(message);
            continue;
        }
        const bool isLast = message.type == keyUpdate                                        ? epoch_ >= application
                            : message.type == endOfEarlyData                                 ? epoch_ == early
                            : message.type == std::to_underlying(TLSHandshakeType::finished) ? epoch_ == handshake
                                                                                             : false;
        if (isLast) enter(followingEpoch());
    }
}

bool ReachWalk::isApplicationData() const { return opened_.type == applicationData && !content_.isEmpty(); }

}  // namespace sealscope
