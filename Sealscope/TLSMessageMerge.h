// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSEntryReader.h"
#include "host/VELModels/TCPStream.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <vector>

namespace sealscope {

/// Finds the items of both directions of a stream in the order of `TLSStreamParser::interpretation`, by and by: keeps a place
/// wherever the time of a direction's items steps back, and none of the items. Used by one thread; outlived by the stream.
class TLSEntryMerge {
public:
    explicit TLSEntryMerge(const TCPStream& stream);
    TLSEntryMerge(const TLSEntryMerge&) = delete;
    TLSEntryMerge& operator=(const TLSEntryMerge&) = delete;

    /// An item, by what orders them.
    struct Item {
        double timestamp = 0;
        TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
        TLSEntryReader::Place behind;
        auto operator<=>(const Item&) const = default;
    };
    static Item itemAt(const TLSEntryReader& reader) { return {reader.timestamp(), reader.direction(), reader.place()}; }

    /// The first Client Hello and the first Server Hello.
    const std::optional<Item>& clientHello() const { return clientHello_; }
    const std::optional<Item>& serverHello() const { return serverHello_; }
    /// Moves on to the next item; null at the end. The reader stands on the item.
    TLSEntryReader* next();

private:
    /// Items of one direction in a row whose times do not step back.
    struct Run {
        TLSEntryReader::Place place;  ///< before the first item that was not given out
        double timestamp = 0;         ///< of that item
    };
    struct Side {
        TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
        std::vector<Run> runs;
        std::optional<TLSEntryReader> reader;  ///< stands on the first item of a run that was not given out
        std::uint32_t readRun = 0;             ///< the run
    };
    struct Head {
        std::uint32_t side = 0;
        std::uint32_t run = 0;
    };

    void findRuns(Side& side);
    bool isLater(Head a, Head b) const;
    /// Moves a run behind the item at which its reader stands; false when it has no further one.
    bool passItem(Head head);

    const TCPStream& stream_;
    std::array<Side, 2> sides_;
    std::vector<Head> heads_;  ///< of the runs that have items left, as a heap
    std::optional<Item> clientHello_, serverHello_;
    bool isOnItem_ = false;  ///< the first of them was given out
};

}  // namespace sealscope
