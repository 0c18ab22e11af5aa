// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDirectionWalk.h"

#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSWalk.h"

#include <algorithm>
#include <array>
#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t masterSecretLength = 48;  // RFC 5246 §8.1
constexpr std::int64_t smallBuffer = 2'048;      // a record of a packet or so
constexpr std::uint8_t applicationData = std::to_underlying(TLSContentType::applicationData);

std::optional<TLS12RecordDecryptor::Walk> beginTLS12(TCPSegment::Direction direction, const TLSStreamDecryption::Context& context,
                                                     const TLSKeyLog& keyLog)
{
    const auto masterSecret = keyLog.secrets.find(secretLabels(false, direction).application, context.clientRandom);
    if (!masterSecret || masterSecret->size() != masterSecretLength) return std::nullopt;
    const auto parameters = TLS12RecordDecryptor::suiteParameters(context.cipherSuite);
    if (!parameters) return std::nullopt;
    const auto keys =
        TLS12RecordDecryptor::directionKeys(direction, *parameters, context.clientRandom, context.serverRandom, *masterSecret);
    if (!keys) return std::nullopt;
    return TLS12RecordDecryptor::Walk(*keys, parameters->cipher);
}

std::optional<TLS13RecordDecryptor::Walk> beginTLS13(TCPSegment::Direction direction, const TLSStreamDecryption::Context& context,
                                                     const TLSKeyLog& keyLog)
{
    const TLSSecretLabels labels = secretLabels(true, direction);
    const auto applicationSecret = keyLog.secrets.find(labels.application, context.clientRandom);
    if (!applicationSecret) return std::nullopt;
    const auto handshakeSecret = keyLog.secrets.find(labels.handshake, context.clientRandom);
    const auto suite = TLS13RecordDecryptor::suiteParameters(context.cipherSuite);
    if (!suite) return std::nullopt;
    return TLS13RecordDecryptor::Walk(handshakeSecret, *applicationSecret, *suite);
}

/// Whether a header can be one of TLS at all; after lost bytes headers are read where none are. 24 is a heartbeat.
bool isForeign(const TLSRecord& record) { return record.contentType < 20 || record.contentType > 24 || record.majorVersion != 3; }

}  // namespace

void TLSFraming::take(const TLSRecord& record, bool isProtected)
{
    if (foreign) return;
    if (isForeign(record))
        foreign = record;
    else if (record.isTruncated)
        cutFrom = record.recordOffset;
    else if (isProtected)
        ++protectedRecords;
}

void TLSFraming::finish(std::int64_t end, std::int64_t size)
{
    if (!foreign && !cutFrom && end < size) cutFrom = end;
}

TLSFraming framingOf(const StreamData& data, bool isTLS13)
{
    TLSFraming framing;
    std::int64_t end = 0;
    bool isEncrypted = isTLS13;
    forEachRecord(data, [&](const TLSRecord& record) {
        framing.take(record, isEncrypted && record.contentType == applicationData);
        if (record.contentType == std::to_underlying(TLSContentType::changeCipherSpec)) isEncrypted = true;
        if (!record.isTruncated) end = record.endOffset();
        return !framing.foreign;
    });
    framing.finish(end, data.size());
    return framing;
}

std::optional<TLSDirectionWalk> TLSDirectionWalk::begin(const StreamData& data, TCPSegment::Direction direction,
                                                        const TLSStreamDecryption::Context& context, const TLSKeyLog& keyLog)
{
    if (context.isTLS13) {
        if (auto walk = beginTLS13(direction, context, keyLog)) return TLSDirectionWalk(data, std::move(*walk));
    } else {
        if (auto walk = beginTLS12(direction, context, keyLog)) return TLSDirectionWalk(data, std::move(*walk));
    }
    return std::nullopt;
}

bool TLSDirectionWalk::isProtected(const TLSRecord& record)
{
    if (auto* walk = std::get_if<TLS12RecordDecryptor::Walk>(&records_)) return walk->advance(record.contentType);
    return record.contentType == applicationData;
}

bool TLSDirectionWalk::moveToProtectedRecord()
{
    bool isFound = false;
    forEachRecord(
        reader_,
        [&](const TLSRecord& record) {
            isFound = !record.isTruncated && isProtected(record);
            framing_.take(record, isFound);
            if (record.isTruncated) return false;
            nextOffset_ = record.endOffset();
            if (isFound) record_ = record;
            return !isFound;
        },
        nextOffset_);
    return isFound;
}

const TLSFraming& TLSDirectionWalk::passToEnd()
{
    while (moveToProtectedRecord()) {}
    framing_.finish(nextOffset_, data_->size());
    return framing_;
}

std::optional<TLS13RecordDecryptor::Opened> TLSDirectionWalk::open(const ScatteredView& body, std::uint8_t* target)
{
    if (auto* walk = std::get_if<TLS12RecordDecryptor::Walk>(&records_)) {
        const auto length = walk->open(record_.version(), body, target);
        if (!length) return std::nullopt;
        return TLS13RecordDecryptor::Opened{.innerType = applicationData, .length = *length};
    }
    const std::array<std::uint8_t, TLSRecord::headerLength> header{record_.contentType, record_.majorVersion, record_.minorVersion,
                                                                   static_cast<std::uint8_t>(record_.declaredLength >> 8),
                                                                   static_cast<std::uint8_t>(record_.declaredLength)};
    return std::get<TLS13RecordDecryptor::Walk>(records_).open(DataView(header), body, target);
}

TLSDirectionWalk::Step TLSDirectionWalk::next(std::uint8_t* target)
{
    if (hasEnded_ || !moveToProtectedRecord()) return Step::end;
    data_->findStretches(record_.bodyOffset, record_.declaredLength, stretches_);
    const ScatteredView body(stretches_);
    if (!target) {
        if (bufferSize_ < body.size()) {
            bufferSize_ = std::max({body.size(), 2 * bufferSize_, smallBuffer});
            buffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(bufferSize_));
        }
        target = buffer_.get();
    }
    const auto opened = open(body, target);
    if (!opened) {
        hasEnded_ = std::holds_alternative<TLS13RecordDecryptor::Walk>(records_);
        return Step::refused;
    }
    innerType_ = opened->innerType;
    plaintext_ = {target, opened->length};
    return Step::opened;
}

bool TLSDirectionWalk::isApplicationData() const { return innerType_ == applicationData && !plaintext_.isEmpty(); }

bool TLSDirectionWalk::nextApplicationData()
{
    for (auto step = next(); step != Step::end; step = next())
        if (step == Step::opened && isApplicationData()) return true;
    return false;
}

std::int64_t TLSDirectionWalk::changeCipherSpecs() const
{
    const auto* walk = std::get_if<TLS12RecordDecryptor::Walk>(&records_);
    return walk ? walk->changeCipherSpecs() : 0;
}

}  // namespace sealscope
