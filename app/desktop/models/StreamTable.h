// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/models/FilterTerms.h"
#include "app/desktop/models/RowOrder.h"
#include "app/desktop/models/TextPool.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::desktop {

/// How a verdict is coloured, from the best to what is no verdict.
enum class Tone : std::uint8_t { good, partly, closed, none, pending };

/// What is said of a stream once it has been looked into.
struct StreamJudgement {
    std::int64_t stream = 0;
    Tone tone = Tone::pending;
    Advice advice = Advice::nothing;
    std::string_view verdict;  ///< in words that live as long as the program
    std::string serverName;
    std::string version;
    std::string sentence;
};

/// What a list shows of the streams of a capture, in some tens of bytes each.
class StreamTable {
public:
    enum class Column : std::uint8_t { number, client, server, serverName, version, sent, received, start, duration, verdict, detail };
    static constexpr int columnCount = 11;

    struct Record {
        std::uint32_t clientAddress = 0;  ///< numbers of `addresses`
        std::uint32_t serverAddress = 0;
        std::uint16_t clientPort = 0;
        std::uint16_t serverPort = 0;
        bool isMeasured = false;
        Tone tone = Tone::pending;
        Advice advice = Advice::nothing;
        std::uint32_t serverName = 0;  ///< numbers of `names`
        std::uint32_t version = 0;
        std::uint32_t verdict = 0;
        std::int64_t clientBytes = 0;
        std::int64_t serverBytes = 0;
        std::int64_t missingBytes = 0;
        double startTime = 0;
        double endTime = 0;
    };

    /// Starts anew with as many streams, of which nothing is known.
    void reset(std::int64_t count);
    /// Further streams, up to as many.
    void grow(std::int64_t count) { records_.resize(static_cast<std::size_t>(count)); }
    void measure(const StreamSummary& summary);
    void judge(const StreamJudgement& judgement);
    /// Takes every verdict back.
    void forgetVerdicts();

    std::uint32_t size() const { return static_cast<std::uint32_t>(records_.size()); }
    const Record& operator[](std::uint32_t row) const { return records_[row]; }
    std::string client(std::uint32_t row) const { return endpoint(records_[row].clientAddress, records_[row].clientPort); }
    std::string server(std::uint32_t row) const { return endpoint(records_[row].serverAddress, records_[row].serverPort); }
    const std::string& name(std::uint32_t number) const { return names_[number]; }
    /// The verdicts that were given so far.
    const std::vector<std::uint32_t>& verdicts() const { return verdicts_; }

    /// Shows rows that hold the words; of one verdict only, where it is not 0.
    void arrange(RowOrder& order, Column column, RowOrder::Direction direction, const FilterTerms& terms, std::uint32_t verdict) const;

private:
    std::string endpoint(std::uint32_t address, std::uint16_t port) const;
    std::uint32_t address(const TCPStreamKey::Endpoint& endpoint);

    std::vector<Record> records_;
    TextPool addresses_;  ///< "192.0.2.1", "[2001:db8::1]"
    TextPool names_;      ///< server names, versions, verdicts
    std::vector<std::uint32_t> verdicts_;
    TCPStreamKey::Endpoint latest_;  ///< of which `latestAddress_` is the number
    std::uint32_t latestAddress_ = 0;
};

}  // namespace sealscope::desktop
