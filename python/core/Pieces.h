// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/capture/CapturedPacket.h"
#include "app/session/SessionPlugIns.h"
#include "app/verdict/StreamVerdict.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// A capture of many files, worked on file by file and yet as one. Each file is looked through first, for the pairs of endpoints in it; the
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
    std::int64_t packets = 0;
    std::int64_t bytes = 0;  ///< of the file, as stored
    std::vector<PairHash> pairs;
    /// A pair, and the first 8 bytes of a client random of it, for choosing the secrets that a file needs.
    std::vector<std::pair<PairHash, std::uint64_t>> clients;
    std::vector<PairHash> strangers;  ///< pairs that begin in mid-connection, so that any secret may be theirs
    SecretText secrets;               ///< that the file carries
    std::vector<CaptureError> errors;
};

FileScan scanFile(const std::string& file, const std::stop_token& stop);

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
    /// The number of each connection's first packet, in the whole capture, ascending; a row's "stream" counts these from 0.
    std::vector<std::int64_t> firstPackets;
    std::string rows;  ///< NDJSON
    std::vector<CaptureError> errors;
};

/// Works on one file. Packets of the pairs in `travelling` are not looked at, but appended to `packets` under the pair's number.
PieceRows workOnFile(const std::string& file, const std::string& filter, std::int64_t packetsBefore,
                     const std::unordered_map<PairHash, std::int64_t>& travelling, std::map<std::int64_t, std::string>& packets,
                     PieceOptions options, const std::stop_token& stop);

/// Works on packets that were handed over, in the order of their numbers.
PieceRows workOnPackets(std::string packets, PieceOptions options, const std::stop_token& stop);

}  // namespace sealscope::python
