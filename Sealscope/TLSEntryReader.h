// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSRecord.h"
#include "Sealscope/TLSStreamParser.h"
#include "host/VELModels/StreamData.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// An unbroken run of handshake records, whose bodies are laid end to end. Gives out each message as soon as it is complete, and
/// holds no byte of the one that is not. Used by one thread; outlived by the stream.
class TLSHandshakeRun {
public:
    /// `data` is the direction's of the stream.
    TLSHandshakeRun(const StreamData& data, TCPSegment::Direction direction, const TCPStream& stream)
        : direction_(direction), stream_(stream), data_(data), reader_(data)
    {}

    /// The run's next record, from a byte of its body on. Of the one before, everything was taken.
    void add(const TLSRecord& record, std::int64_t inBody = 0);
    /// Moves on to the next complete message; false when the records hold no further one.
    bool next();
    /// Forgets a message that is not complete.
    void drop() { headerLength_ = 0; }

    /// Where the message that came last ends.
    std::int64_t at() const { return at_; }
    std::uint8_t type() const { return header_[0]; }
    TLSStreamParser::LocatedSpan locate() const;
    /// The message, which lies there.
    TLSStreamParser::Entry entry(TLSStreamParser::LocatedSpan located);

private:
    bool takeHeader();
    bool takeBody();
    /// Bytes of the message's body, at most so many of them, in one place.
    DataView body(std::int64_t most);

    TCPSegment::Direction direction_;
    const TCPStream& stream_;
    const StreamData& data_;
    StreamReader reader_;
    std::vector<TLSStreamParser::HandshakeFragment> fragments_;  ///< of the message at hand, which begins at 0
    std::int64_t concatEnd_ = 0;                                 ///< of the last fragment
    std::int64_t at_ = 0, end_ = 0;                              ///< what is left of the record
    std::array<std::uint8_t, 4> header_{};
    std::int64_t headerLength_ = 0;  ///< bytes of the header that are known
    bool isHeaderLost_ = false;      ///< all of them lie in holes
    std::int64_t length_ = 0;        ///< of the message's body
    std::int64_t missing_ = 0;       ///< body bytes that are still to come
    std::vector<std::uint8_t> gathered_;
};

/// A run of application-data records, as much of it as its item shows.
class TLSApplicationDataRun {
public:
    void add(const TLSRecord& record);
    bool isEmpty() const { return records_ == 0; }
    /// From the first body to the last, headers between included.
    ByteRange range() const { return range_; }
    TLSStreamParser::Entry entry(TCPSegment::Direction direction, ByteLocation location) const;

private:
    ByteRange range_;
    std::int64_t records_ = 0;
    std::int64_t bytes_ = 0;
};

/// Finds the items of one direction one after another: `TLSStreamParser::entries` by and by. Keeps nothing of what it has passed,
/// so that a pass over a stream of any size costs no memory, and can be taken up again at any place between two items. Used by
/// one thread; outlived by the stream.
class TLSEntryReader {
public:
    /// Between two items.
    struct Place {
        std::int64_t record = 0;  ///< offset of the header of the record where to go on
        std::int64_t inBody = 0;  ///< of a handshake record, bytes of its body that earlier items took
        auto operator<=>(const Place&) const = default;
    };

    TLSEntryReader(TCPSegment::Direction direction, const TCPStream& stream) : TLSEntryReader(direction, stream, Place()) {}
    TLSEntryReader(TCPSegment::Direction direction, const TCPStream& stream, Place from)
        : direction_(direction), stream_(stream), reader_(stream.data(direction)), place_(from),
          handshake_(stream.data(direction), direction, stream)
    {}

    /// Moves on to the next item; false at the end.
    bool next();
    /// Behind the item that came last.
    Place place() const { return place_; }
    TCPSegment::Direction direction() const { return direction_; }
    double timestamp() const { return timestamp_; }
    bool isApplicationData() const { return kind_ == Kind::applicationData; }
    /// Of a handshake message.
    std::optional<std::uint8_t> handshakeType() const;
    /// The item. Asked for once.
    TLSStreamParser::Entry entry();

private:
    enum class Kind : std::uint8_t { none, changeCipherSpec, alert, handshake, applicationData };

    bool take(const TLSRecord& record, std::int64_t count);
    bool takeHandshake(const TLSRecord& record);
    void settle(Kind kind, ByteRange range);
    bool settleApplicationData();

    TCPSegment::Direction direction_;
    const TCPStream& stream_;
    StreamReader reader_;
    Place place_;
    TLSHandshakeRun handshake_;
    TLSApplicationDataRun applicationData_;

    Kind kind_ = Kind::none;
    double timestamp_ = 0;
    TLSRecord record_;                      ///< of an alert or a change of ciphers
    ByteLocation location_;                 ///< of what is no handshake message
    TLSStreamParser::LocatedSpan located_;  ///< of a handshake message
};

}  // namespace sealscope
