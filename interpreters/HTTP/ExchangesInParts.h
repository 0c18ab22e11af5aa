// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"
#include "host/VELModels/StreamMessage.h"

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// Hands over the exchanges of a connection that is read a little at a time, and of what it carries. Until its turn comes an exchange is
/// held as an item.
template <class Item> class ExchangesInParts : public StreamExchangeReader {
public:
    std::optional<double> nextTime() const override
    {
        const StreamExchangeReader* const carried = firstCarried();
        if (isTurnOf(carried)) return carried->nextTime();
        return waiting_.empty() ? std::nullopt : std::optional(firstTime());
    }
    void next(StreamExchange& exchange) override
    {
        StreamExchangeReader* const carried = firstCarried();
        if (isTurnOf(carried)) {
            carried->next(exchange);
            for (auto* const message : {&exchange.request, &exchange.reply})
                if (*message) (*message)->detail.insert((*message)->detail.begin(), rowsOfCarried_.begin(), rowsOfCarried_.end());
            if (!carried->nextTime()) std::erase_if(carried_, [&](const auto& reader) { return reader.get() == carried; });
            return;
        }
        auto first = waiting_.extract(waiting_.begin());
        bytes_ -= first.mapped().bytes;
        make(first.mapped().item, exchange);
        readAhead();
    }

protected:
    /// So many bytes may wait, about.
    explicit ExchangesInParts(std::size_t mostBytes) : mostBytes_(mostBytes) {}

    /// When an exchange began, from which side, and with which byte of that: a packet may have many. A reply alone comes behind others.
    struct Beginning {
        double time = 0;
        int side = 0;
        std::int64_t first = 0;
        auto operator<=>(const Beginning&) const = default;
    };
    static Beginning beginning(double time, TCPSegment::Direction direction, std::int64_t first, bool isReply)
    {
        return {time, isReply ? 2 : direction == TCPSegment::Direction::clientToServer ? 0 : 1, first};
    }

    /// So many wait as long as they are not too large, since packets may have been captured in another order than that of their bytes.
    static constexpr std::size_t reordered = 256;

    /// Reads on, and lets items wait; false at the end.
    virtual bool readSome() = 0;
    virtual void make(Item& item, StreamExchange& exchange) = 0;
    /// Those that begin before this are all told; those that began later may be joined by others.
    virtual double toldUpTo() const { return std::numeric_limits<double>::max(); }

    void wait(Beginning beginning, std::size_t bytes, Item item)
    {
        bytes_ += bytes;
        waiting_.emplace(beginning, Waiting{bytes, std::move(item)});
    }
    /// Adds the exchanges of a stream that is carried.
    void add(std::unique_ptr<StreamExchangeReader> carried)
    {
        if (carried->nextTime()) carried_.push_back(std::move(carried));
    }
    /// The rows in front of those of what is carried.
    void setRowsOfCarried(std::vector<DetailRow> rows) { rowsOfCarried_ = std::move(rows); }
    /// To be called once, when the rest is there.
    void readAhead()
    {
        while (!isOver_ && (bytes_ < mostBytes_ || waiting_.empty())) {
            if (waiting_.size() >= reordered && firstTime() < toldUpTo()) return;
            isOver_ = !readSome();
        }
    }

private:
    struct Waiting {
        std::size_t bytes = 0;
        Item item;
    };

    /// Whether what is carried comes before what waits.
    bool isTurnOf(const StreamExchangeReader* carried) const
    {
        // Each holds something, so that of more they are told to their ends first, whatever the time.
        constexpr std::size_t mostCarried = 32;
        return carried && (waiting_.empty() || carried_.size() >= mostCarried || *carried->nextTime() < firstTime());
    }
    double firstTime() const { return waiting_.begin()->first.time; }
    /// Of the carried streams the one whose exchange comes next, or null.
    StreamExchangeReader* firstCarried() const
    {
        StreamExchangeReader* first = nullptr;
        for (const auto& reader : carried_)
            if (const auto time = reader->nextTime(); time && (!first || *time < *first->nextTime())) first = reader.get();
        return first;
    }

    std::multimap<Beginning, Waiting> waiting_;
    std::size_t bytes_ = 0;  ///< of what waits
    std::size_t mostBytes_;
    std::vector<std::unique_ptr<StreamExchangeReader>> carried_;
    std::vector<DetailRow> rowsOfCarried_;
    bool isOver_ = false;
};

}  // namespace sealscope
