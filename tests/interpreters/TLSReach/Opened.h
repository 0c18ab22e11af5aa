// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "interpreters/TLSReach/ReachProbe.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// A probe that has these secrets and no others.
inline std::shared_ptr<const ReachProbe> probeWith(std::string_view keyLog)
{
    static const NoKeyLogs noOthers;
    return std::make_shared<const ReachProbe>(std::make_shared<const KeyLogSources>(SecretText(keyLog), std::vector<std::string>()));
}

/// What came out of a direction.
struct Opened {
    std::map<std::int64_t, std::string> records;  ///< plaintext by where the record's body begins
    std::string plaintext;
    TLSDirectionReport report;
};

inline Opened opened(const TLSStreamDecryptionProbing& probe, const TCPStream& stream, TCPSegment::Direction direction)
{
    Opened result;
    const auto reader = probe.plaintextReader(stream, direction);
    if (!reader) return result;
    while (const auto record = reader->next()) {
        result.records[record->body.lower] = record->plaintext.text();
        result.plaintext += record->plaintext.text();
    }
    result.report = *reader->report();
    return result;
}

}  // namespace sealscope
