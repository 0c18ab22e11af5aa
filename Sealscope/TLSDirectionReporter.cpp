// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDirectionReporter.h"

#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Stop = TLSDirectionReport::Stop;

constexpr std::uint16_t earlyDataExtension = 42;  // RFC 8446 §4.2.10
constexpr std::int64_t littleData = 32 * 1'024;

std::uint8_t type(TLSContentType contentType) { return std::to_underlying(contentType); }

/// RFC 8446 §6, RFC 5246 §7.2 and what these registered before.
std::string alertName(std::uint8_t description)
{
    switch (description) {
    case 0: return "close_notify";
    case 10: return "unexpected_message";
    case 20: return "bad_record_mac";
    case 21: return "decryption_failed";
    case 22: return "record_overflow";
    case 30: return "decompression_failure";
    case 40: return "handshake_failure";
    case 41: return "no_certificate";
    case 42: return "bad_certificate";
    case 43: return "unsupported_certificate";
    case 44: return "certificate_revoked";
    case 45: return "certificate_expired";
    case 46: return "certificate_unknown";
    case 47: return "illegal_parameter";
    case 48: return "unknown_ca";
    case 49: return "access_denied";
    case 50: return "decode_error";
    case 51: return "decrypt_error";
    case 60: return "export_restriction";
    case 70: return "protocol_version";
    case 71: return "insufficient_security";
    case 80: return "internal_error";
    case 86: return "inappropriate_fallback";
    case 90: return "user_canceled";
    case 100: return "no_renegotiation";
    case 109: return "missing_extension";
    case 110: return "unsupported_extension";
    case 111: return "certificate_unobtainable";
    case 112: return "unrecognized_name";
    case 113: return "bad_certificate_status_response";
    case 114: return "bad_certificate_hash_value";
    case 115: return "unknown_psk_identity";
    case 116: return "certificate_required";
    case 120: return "no_application_protocol";
    default: return std::to_string(description);
    }
}

}  // namespace

bool hasLostBytes(const StreamData& data, ByteRange range)
{
    const std::int64_t upper = std::min(range.upper, data.size());
    for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < upper; offset += data.stretch(offset).size())
        if (data.hole(offset)) return true;
    return false;
}

std::optional<TLSAlertReport> clearAlert(const StreamData& data)
{
    std::optional<TLSAlertReport> alert;
    StreamReader bytes(data);
    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.isTruncated) return false;
        if (record.contentType == type(TLSContentType::alert) && record.declaredLength == 2) {
            const std::uint8_t description = bytes.u8(record.bodyOffset + 1);
            alert = TLSAlertReport{bytes.u8(record.bodyOffset), description, alertName(description)};
            return false;
        }
        return record.contentType == type(TLSContentType::handshake);
    });
    return alert;
}

void TLSDirectionReporter::Progress::take(TLSDirectionWalk::Step step, const TLSDirectionWalk& walk)
{
    if (step == TLSDirectionWalk::Step::end) return;
    if (step == TLSDirectionWalk::Step::refused) {
        if (++refused_ == 1) refusal_ = {walk.record(), isAfterKeyUpdate_, walk.changeCipherSpecs() > 1};
        return;
    }
    ++counts_.openedRecords;
    counts_.skippedRecords += std::exchange(refused_, 0);
    refusal_ = {};
    const DataView plaintext = walk.plaintext();
    if (walk.innerType() == type(TLSContentType::applicationData)) counts_.plaintextBytes += plaintext.size();
    // A KeyUpdate is the last message under its key: type 24, and one byte of content (RFC 8446 §4.6.3).
    const DataView last = plaintext.from(plaintext.size() - 5);
    isAfterKeyUpdate_ = walk.innerType() == type(TLSContentType::handshake) && last.size() == 5 && last.u32(0) == 0x18000001;
}

TLSDirectionReport TLSDirectionReporter::report(Direction direction) const
{
    const StreamData& captured = stream_.data(direction);
    const auto notBegun = [&](Stop stop) {
        TLSDirectionReport report;
        report.stop = stop;
        report.protectedRecords =
            framingOf(captured, context_.isTLS13 ? TLSFraming::Protection::encrypted : TLSFraming::Protection::none).protectedRecords;
        return report;
    };
    if (!applicationSecret(direction)) return notBegun(Stop::noSecret);
    // Of most connections there is so little that to look up where each record lies costs more than to copy it all.
    const StreamData data = captured.size() <= littleData ? StreamData(captured.whole()) : captured;
    auto walk = TLSStreamDecryption::directionWalk(data, direction, context_, keyLog_);
    if (!walk) return notBegun(Stop::badSecret);
    Progress progress;
    for (auto step = walk->next(); step != TLSDirectionWalk::Step::end; step = walk->next()) progress.take(step, *walk);
    return report(direction, *walk, progress);
}

TLSDirectionReport TLSDirectionReporter::report(Direction direction, TLSDirectionWalk& walk, const Progress& progress) const
{
    TLSDirectionReport report = progress.counts_;
    const TLSFraming& framing = walk.passToEnd();
    report.protectedRecords = framing.protectedRecords;
    settleStop(report, framing, progress.refusal_, direction);
    if (report.plaintextBytes == 0) report.alert = clearAlert(stream_.data(direction));
    return report;
}

std::optional<Data> TLSDirectionReporter::applicationSecret(Direction direction) const
{
    return keyLog_.secrets.find(secretLabels(context_, direction).application, context_.clientRandom);
}

void TLSDirectionReporter::settleStop(TLSDirectionReport& report, const TLSFraming& framing, const Progress::Refusal& refusal,
                                      Direction direction) const
{
    const auto stopAt = [&](Stop stop, std::int64_t offset) {
        report.stop = stop;
        report.stopOffset = offset;
    };
    if (framing.foreign && (!refusal.record || framing.foreign->recordOffset < refusal.record->recordOffset)) {
        const std::int64_t offset = framing.foreign->recordOffset;
        const bool isLost = hasLostBytes(stream_.data(direction), {offset, offset + TLSRecord::headerLength});
        return stopAt(isLost ? Stop::lostBytes : Stop::noRecord, offset);
    }
    if (refusal.record) return stopAt(reason(report, refusal, direction), refusal.record->recordOffset);
    if (framing.cutFrom) return stopAt(Stop::cutRecord, *framing.cutFrom);
    stopAt(report.protectedRecords > 0 ? Stop::endOfData : Stop::nothingProtected, stream_.data(direction).size());
}

Stop TLSDirectionReporter::reason(const TLSDirectionReport& report, const Progress::Refusal& refusal, Direction direction) const
{
    const TLSRecord& record = *refusal.record;
    if (hasLostBytes(stream_.data(direction), {record.recordOffset, record.endOffset()})) return Stop::lostBytes;
    if (refusal.followsRenegotiation) return Stop::renegotiation;
    if (refusal.followsKeyUpdate) return Stop::keyUpdate;
    if (report.openedRecords > 0 || !context_.isTLS13) return Stop::doesNotOpen;

    const auto suite = TLS13RecordDecryptor::suiteParameters(context_.cipherSuite);
    if (direction == Direction::clientToServer && isEarlyData(record)) return Stop::earlyData;
    const auto secret = applicationSecret(direction);
    if (suite && secret && secret->size() != digestSize(suite->hash)) return Stop::badSecret;
    return hasHandshakeSecret(direction) ? Stop::doesNotOpen : Stop::noHandshakeSecret;
}

bool TLSDirectionReporter::hasHandshakeSecret(Direction direction) const
{
    return keyLog_.secrets.length(secretLabels(direction).handshake, context_.clientRandom).has_value();
}

// Its own secret says for certain whether the client's first protected record is early data, and without that an offer of it,
// where the handshake keys are there and do not open the record.
bool TLSDirectionReporter::isEarlyData(const TLSRecord& record) const
{
    const auto hello = TLSStreamDecryption::firstClientHello(stream_.clientToServerData);
    const auto isOffer = [](const TLSExtension& extension) { return extension.extType == earlyDataExtension; };
    if (!hello || std::ranges::none_of(hello->extensions, isOffer)) return false;
    const auto secret = keyLog_.secrets.find("CLIENT_EARLY_TRAFFIC_SECRET", context_.clientRandom);
    const auto suite = TLS13RecordDecryptor::suiteParameters(context_.cipherSuite);
    if (!secret || !suite) return hasHandshakeSecret(Direction::clientToServer);
    TLS13RecordDecryptor::RecordSequence sequence(std::nullopt, *secret, *suite);
    const Data whole = stream_.clientToServerData.slice(record.recordOffset, TLSRecord::headerLength + record.declaredLength);
    const DataView bytes = whole;
    std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(whole.size()));
    return sequence.open(bytes.sub(0, TLSRecord::headerLength), bytes.from(TLSRecord::headerLength), plaintext.data()).has_value();
}

}  // namespace sealscope
