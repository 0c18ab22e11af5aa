// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDirectionWalk.h"

#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <array>
#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t smallBuffer = 2'048;  // a record of a packet or so
constexpr std::uint8_t applicationData = std::to_underlying(TLSContentType::applicationData);

/// Whether a header can be one of TLS at all; after lost bytes headers are read where none are. 24 is a heartbeat.
bool isForeign(const TLSRecord& record) { return record.contentType < 20 || record.contentType > 24 || record.majorVersion != 3; }

}  // namespace

void TLSFraming::take(const TLSRecord& record, Protection protection)
{
    if (foreign) return;
    if (isForeign(record))
        foreign = record;
    else if (record.isTruncated)
        cutFrom = record.recordOffset;
    else if (protection == Protection::encrypted)
        ++protectedRecords;
}

void TLSFraming::finish(std::int64_t end, std::int64_t size)
{
    if (!foreign && !cutFrom && end < size) cutFrom = end;
}

TLSFraming framingOf(const StreamData& data, TLSFraming::Protection atFirst)
{
    TLSFraming framing;
    std::int64_t end = 0;
    TLSFraming::Protection protection = atFirst;
    forEachRecord(data, [&](const TLSRecord& record) {
        framing.take(record, record.contentType == applicationData ? protection : TLSFraming::Protection::none);
        if (record.contentType == std::to_underlying(TLSContentType::changeCipherSpec)) protection = TLSFraming::Protection::encrypted;
        if (!record.isTruncated) end = record.endOffset();
        return !framing.foreign;
    });
    framing.finish(end, data.size());
    return framing;
}

bool TLSDirectionWalk::isProtected(const TLSRecord& record, std::int64_t count)
{
    if (auto* sequence = std::get_if<TLS12RecordDecryptor::RecordSequence>(&records_)) return sequence->advance(record.contentType, count);
    return record.contentType == applicationData;
}

TLSDirectionWalk::Position TLSDirectionWalk::position() const
{
    Position position{.offset = nextOffset_, .records = {}};
    std::visit([&](const auto& records) { position.records = records.position(); }, records_);
    return position;
}

void TLSDirectionWalk::goTo(const Position& position)
{
    nextOffset_ = position.offset;
    std::visit(
        [&](auto& records) {
            using At = decltype(records.position());
            if (const auto* const at = std::get_if<At>(&position.records)) records.goTo(*at);
        },
        records_);
}

bool TLSDirectionWalk::moveToProtectedRecord()
{
    bool isFound = false;
    forEachRecord(
        reader_,
        [&](const TLSRecord& record, std::int64_t count) {
            isFound = !record.isTruncated && isProtected(record, count);
            framing_.take(record, isFound ? TLSFraming::Protection::encrypted : TLSFraming::Protection::none);
            if (record.isTruncated) return false;
            nextOffset_ = record.endOffset() + (count - 1) * TLSRecord::headerLength;
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
    if (auto* sequence = std::get_if<TLS12RecordDecryptor::RecordSequence>(&records_)) {
        const auto length = sequence->open(record_.version(), body, target);
        if (!length) return std::nullopt;
        return TLS13RecordDecryptor::Opened{.innerType = applicationData, .length = *length};
    }
    const std::array<std::uint8_t, TLSRecord::headerLength> header{record_.contentType, record_.majorVersion, record_.minorVersion,
                                                                   static_cast<std::uint8_t>(record_.declaredLength >> 8),
                                                                   static_cast<std::uint8_t>(record_.declaredLength)};
    return std::get<TLS13RecordDecryptor::RecordSequence>(records_).open(DataView(header), body, target);
}

TLSDirectionWalk::Step TLSDirectionWalk::openRecord(std::uint8_t* target)
{
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
        hasEnded_ = std::holds_alternative<TLS13RecordDecryptor::RecordSequence>(records_);
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
    const auto* sequence = std::get_if<TLS12RecordDecryptor::RecordSequence>(&records_);
    return sequence ? sequence->changeCipherSpecs() : 0;
}

}  // namespace sealscope
