// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/capture/CapturedPacket.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

// A capture of many files, worked on file by file and yet as one. Each file is indexed first, which shows the pairs of endpoints in it; the
// packets of pairs that several files have are then taken out of these and put together, and everything else is worked on where it lies:
//
//     file A   1 1 2 1 2 3 3        pairs 1 2 3      works on 1 and 2, hands over the packets of 3
//     file B   3 3 4 4 4            pairs 3 4        works on 4, hands over the packets of 3
//
// Whether a pair's packets are one connection or several is found out where they are all together.

namespace sealscope::python {

/// A number for two endpoints, whoever of them sends; the same on every machine. Two pairs may have the same: then they travel together,
/// which does no harm.
using PairHash = std::uint64_t;

/// What is found in one look through a file.
struct FileScan {
    std::optional<CaptureTime> first;  ///< of the first packet
    std::int64_t packets = 0;          ///< of the file, those included that a filter rejects
    std::int64_t bytes = 0;            ///< of the file, as stored
    std::int64_t connections = 0;
    std::vector<PairHash> pairs;
    /// Pairs that had not one connection, and how many they had.
    std::vector<std::pair<PairHash, std::int64_t>> others;
    /// A pair, and the first 8 bytes of a client random of it, for choosing the secrets that a file needs.
    std::vector<std::pair<PairHash, std::uint64_t>> clients;
    std::vector<PairHash> strangers;  ///< pairs that begin in mid-connection, so that any secret may be theirs
    SecretText secrets;               ///< that the file carries
    std::vector<CaptureError> errors;
};

/// The pairs that more than one of several files have, and which these are; of each file its pairs.
std::vector<std::pair<PairHash, std::vector<std::int64_t>>> sharedPairs(const std::vector<DataView>& files);

/// What rows are wanted of, and how.
enum class RowKind : std::uint8_t { streams, exchanges, objects };

struct PieceOptions {
    RowKind kind = RowKind::streams;
    std::string folder;  ///< for objects; empty: measured only
    PlugInOptions plugIns;
    SecretText secrets;  ///< all that the connections here may need
    KeyLogFacts keyLog;  ///< of the whole capture
};

struct PieceRows {
    /// What a row has as its "stream": for each connection, ascending.
    std::vector<std::int64_t> numbers;
    /// The number of each connection's first packet, ascending: in its file, or in the whole capture where packets were handed over.
    std::vector<std::int64_t> firstPackets;
    /// Where packets were handed over: how many connections that stayed in its file begin before that packet.
    std::vector<std::int64_t> before;
    std::string rows;  ///< NDJSON
    std::vector<CaptureError> errors;
};

/// Pairs whose packets are handed over, and the groups that they go to.
using Travelling = std::unordered_map<PairHash, std::int64_t>;

/// One file, indexed: its bytes are looked at again where rows are made from them. Any thread may ask.
class Piece {
public:
    Piece(const std::string& file, const std::string& filter, const PlugInOptions& plugIns, const std::stop_token& stop);

    const FileScan& scan() const { return scan_; }
    std::int64_t memory() const;
    /// The packets of some groups, each group's for itself, with numbers of the whole capture.
    std::vector<std::string> packets(const Travelling& travelling, const std::vector<std::int64_t>& groups,
                                     std::int64_t packetsBefore) const;
    /// The rows of all pairs that stay.
    PieceRows rows(const Travelling& travelling, std::int64_t packetsBefore, PieceOptions options, const std::stop_token& stop) const;

private:
    /// A packet that may have to travel. There is one for each TCP packet, and the number of its pair stands in a list beside.
    struct Kept {
        CaptureAddress address = 0;  ///< of the frame
        std::int64_t seconds = 0;
        std::uint64_t units = 0;
        std::uint64_t number : 40 = 0;
        std::uint64_t kind : 24 = 0;
        std::uint32_t length = 0;  ///< of the frame
        std::uint32_t originalLength = 0;
    };
    static_assert(sizeof(Kept) == 40);
    /// What the packets of one interface have in common.
    struct Kind {
        std::uint64_t resolution = 0;
        std::uint32_t linkType = 0;
        bool operator==(const Kind&) const = default;
    };
    struct Pair {
        PairHash hash = 0;
        bool isProtected = false;
        bool hasHello = false;
        std::int64_t connections = 0;
    };

    void keep(Capture& capture, const CapturedPacket& packet, const TCPPacket& segment);
    std::uint64_t kindOf(const Kind& kind);
    void letGo() const;
    /// Whether a pair stays, by its number.
    std::vector<bool> staying(const Travelling& travelling) const;

    std::unique_ptr<Session> session_;
    FileScan scan_;
    std::unordered_map<PairHash, std::uint32_t> numberOfPair_;
    std::vector<Pair> pairs_;
    std::uint32_t latest_ = 0;
    std::vector<Kind> kinds_;
    std::deque<Kept> kept_;
    std::deque<std::uint32_t> pairOfKept_;
    std::vector<std::uint32_t> pairOfConnection_;
    std::vector<std::int64_t> firstPackets_;
};

/// Works on packets that were handed over, in the order of their numbers.
PieceRows workOnPackets(std::string packets, PieceOptions options, const std::stop_token& stop);

/// Rows with the numbers of the whole capture in place of their own; `numbers` are the rows' own, ascending.
std::string numbered(std::string_view rows, const std::vector<std::int64_t>& numbers, const std::vector<std::int64_t>& whole);

}  // namespace sealscope::python
