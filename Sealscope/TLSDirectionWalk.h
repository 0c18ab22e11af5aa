// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLS12RecordDecryptor.h"
#include "Sealscope/TLS13RecordDecryptor.h"
#include "Sealscope/TLSRecord.h"
#include "host/VELModels/StreamData.h"

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

namespace sealscope {

/// The records of a direction by their headers alone.
struct TLSFraming {
    std::int64_t protectedRecords = 0;    ///< that can be opened: application data on the outside, under encryption
    std::optional<TLSRecord> foreign;     ///< the first that is no TLS record; nothing behind it counts
    std::optional<std::int64_t> cutFrom;  ///< where a record begins that the data do not hold to its end

    /// Takes a direction's next record.
    enum class Protection : std::uint8_t { none, encrypted };
    void take(const TLSRecord& record, Protection protection);
    /// The direction has `size` bytes, and `end` of them are whole records.
    void finish(std::int64_t end, std::int64_t size);
};
/// `atFirst`: of application data, until the direction has changed its cipher.
TLSFraming framingOf(const StreamData& data, TLSFraming::Protection atFirst);

/// Opens the protected records of one direction of a stream one after another. Everything that decrypts a stream does it
/// by this walk, and takes from it no more records than it needs. It knows the keys, and not where they come from:
/// `TLSStreamDecryption::directionWalk` makes it. Used by one thread; outlived by the data.
class TLSDirectionWalk {
public:
    /// The keys of a version, and what their use has come to.
    using Records = std::variant<TLS12RecordDecryptor::RecordSequence, TLS13RecordDecryptor::RecordSequence>;

    TLSDirectionWalk(const StreamData& data, Records records) : data_(&data), reader_(data), records_(std::move(records)) {}

    enum class Step : std::uint8_t {
        opened,   ///< `innerType` and `plaintext` tell what came out
        refused,  ///< the record does not open; in TLS 1.3 none is tried after it
        end,
    };
    /// Moves on to the next protected record and opens it into `target`, which has room for as many bytes as the record has;
    /// without one, into a buffer of the walk.
    Step next(std::uint8_t* target = nullptr)
    {
        return next([target](std::int64_t) { return target; });
    }
    /// The same into what `room` gives for the number of bytes that the record has.
    template <std::invocable<std::int64_t> Room> Step next(const Room& room)
    {
        if (hasEnded_ || !moveToProtectedRecord()) return Step::end;
        return openRecord(room(record_.declaredLength));
    }
    /// Moves on to the next record of application data that opens and is not empty; false at the end.
    bool nextApplicationData();

    /// Where the walk stands, before the next record.
    struct Position {
        std::int64_t offset = 0;
        std::variant<TLS12RecordDecryptor::RecordSequence::Position, TLS13RecordDecryptor::RecordSequence::Position> records;
    };
    Position position() const;
    /// Goes on from where another walk of the same data and keys stood; this one has not moved yet.
    void goTo(const Position& position);

    const TLSRecord& record() const { return record_; }  ///< the last that `next` moved to
    std::uint8_t innerType() const { return innerType_; }
    DataView plaintext() const { return plaintext_; }
    /// Whether what came out last is application data, and not empty.
    bool isApplicationData() const;
    /// ChangeCipherSpec records met so far; counted for TLS 1.2 alone.
    std::int64_t changeCipherSpecs() const;
    /// Passes over what is left of the direction without opening it; the records of the whole direction.
    const TLSFraming& passToEnd();

private:
    bool moveToProtectedRecord();
    Step openRecord(std::uint8_t* target);
    bool isProtected(const TLSRecord& record, std::int64_t count);
    std::optional<TLS13RecordDecryptor::Opened> open(const ScatteredView& body, std::uint8_t* target);

    const StreamData* data_;
    StreamReader reader_;
    Records records_;
    TLSRecord record_;
    TLSFraming framing_;
    std::int64_t nextOffset_ = 0;
    bool hasEnded_ = false;  ///< nothing more is opened
    std::uint8_t innerType_ = 0;
    DataView plaintext_;
    std::vector<DataView> stretches_;
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::int64_t bufferSize_ = 0;
};

}  // namespace sealscope
