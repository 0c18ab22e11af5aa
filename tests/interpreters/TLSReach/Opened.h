// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "interpreters/TLSReach/ReachProbe.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <gtest/gtest.h>
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

/// Every gap says no more than what was sent there: as many bytes of application data where it is exact, and no fewer where it is not.
inline void expectGaps(const std::vector<PlaintextGap>& gaps, const std::map<std::int64_t, std::string>& truth, const std::string& name)
{
    for (const PlaintextGap& gap : gaps) {
        std::int64_t sent = 0, records = 0;
        for (auto record = truth.lower_bound(gap.range.lower); record != truth.end() && record->first < gap.range.upper; ++record) {
            sent += std::ssize(record->second);
            ++records;
        }
        if (gap.isExact) {
            EXPECT_EQ(gap.contentLength, sent) << name << ": the gap from " << gap.range.lower;
            EXPECT_EQ(gap.records, records) << name << ": the gap from " << gap.range.lower;
        } else if (gap.contentLength > 0) {
            EXPECT_GE(gap.contentLength, sent) << name << ": the gap from " << gap.range.lower;
        }
    }
}

}  // namespace sealscope
