// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/StreamTable.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace sealscope::desktop {

namespace {

/// One word of a filter, with the answers that many rows share.
struct Term {
    std::string text;
    std::vector<bool> inAddress, inName;  ///< by their numbers
    bool mayCross = false;                ///< it may begin in an address and end in a port
    bool isNumber = false;
};

std::vector<bool> containing(const TextPool& pool, const std::string& term)
{
    std::vector<bool> contains(pool.size());
    for (std::uint32_t number = 0; number < pool.size(); ++number) contains[number] = containsLowered(pool[number], term);
    return contains;
}

bool isIn(std::string_view text, std::uint64_t number)
{
    char digits[20];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    return std::string_view(digits, end).contains(text);
}

}  // namespace

void StreamTable::reset(std::int64_t count)
{
    records_.assign(static_cast<std::size_t>(count), {});
    verdicts_.clear();
}

std::uint32_t StreamTable::address(const TCPStreamKey::Endpoint& endpoint)
{
    if (latestAddress_ != 0 && latest_.address == endpoint.address && latest_.isIPv6 == endpoint.isIPv6) return latestAddress_;
    latest_ = endpoint;
    std::string text = endpoint.text();
    text.resize(text.rfind(':'));
    return latestAddress_ = addresses_.number(text);
}

std::string StreamTable::endpoint(std::uint32_t address, std::uint16_t port) const
{
    return address == 0 ? std::string() : addresses_[address] + ':' + std::to_string(port);
}

void StreamTable::measure(const StreamSummary& summary)
{
    Record& record = records_[static_cast<std::size_t>(summary.number)];
    record.clientAddress = address(summary.client);
    record.serverAddress = address(summary.server);
    record.clientPort = summary.client.port;
    record.serverPort = summary.server.port;
    record.clientBytes = summary.clientBytes;
    record.serverBytes = summary.serverBytes;
    record.missingBytes = summary.missingBytes;
    record.startTime = summary.startTime;
    record.endTime = summary.endTime;
    record.isMeasured = true;
}

void StreamTable::judge(const StreamJudgement& judgement)
{
    Record& record = records_[static_cast<std::size_t>(judgement.stream)];
    record.tone = judgement.tone;
    record.advice = judgement.advice;
    record.serverName = names_.number(judgement.serverName);
    record.version = names_.number(judgement.version);
    record.verdict = names_.number(judgement.verdict);
    if (std::ranges::find(verdicts_, record.verdict) == verdicts_.end()) verdicts_.push_back(record.verdict);
}

void StreamTable::forgetVerdicts()
{
    for (Record& record : records_) {
        record.tone = Tone::pending;
        record.advice = Advice::nothing;
        record.verdict = 0;
    }
    verdicts_.clear();
}

void StreamTable::arrange(RowOrder& order, Column column, RowOrder::Direction direction, const FilterTerms& terms,
                          std::uint32_t verdict) const
{
    std::vector<Term> wanted;
    for (const std::string& term : terms.terms())
        wanted.push_back({term, containing(addresses_, term), containing(names_, term),
                          term.find_first_not_of("0123456789abcdef.:[]") == std::string::npos,
                          term.find_first_not_of("0123456789") == std::string::npos});
    const auto isInEndpoint = [&](const Term& term, std::uint32_t address, std::uint16_t port) {
        if (term.inAddress[address] || (term.isNumber && isIn(term.text, port))) return true;
        return term.mayCross && endpoint(address, port).contains(term.text);
    };
    const auto isWanted = [&](std::uint32_t row) {
        const Record& record = records_[row];
        if (verdict != 0 && record.verdict != verdict) return false;
        return std::ranges::all_of(wanted, [&](const Term& term) {
            return term.inName[record.serverName] || term.inName[record.version] || term.inName[record.verdict] ||
                   isInEndpoint(term, record.clientAddress, record.clientPort) ||
                   isInEndpoint(term, record.serverAddress, record.serverPort) || (term.isNumber && isIn(term.text, row));
        });
    };
    const auto by = [&](const auto& key) {
        order.arrange(size(), direction, [&](std::uint32_t row) { return static_cast<std::uint64_t>(key(records_[row], row)); }, isWanted);
    };
    switch (column) {
    case Column::number: return by([](const Record&, std::uint32_t row) { return row; });
    case Column::client:
        return by([&, &ranks = addresses_.ranks()](const Record& record, std::uint32_t) {
            return std::uint64_t{ranks[record.clientAddress]} << 16 | record.clientPort;
        });
    case Column::server:
        return by([&, &ranks = addresses_.ranks()](const Record& record, std::uint32_t) {
            return std::uint64_t{ranks[record.serverAddress]} << 16 | record.serverPort;
        });
    case Column::serverName:
        return by([&, &ranks = names_.ranks()](const Record& record, std::uint32_t) { return ranks[record.serverName]; });
    case Column::version: return by([&, &ranks = names_.ranks()](const Record& record, std::uint32_t) { return ranks[record.version]; });
    case Column::sent: return by([](const Record& record, std::uint32_t) { return record.clientBytes; });
    case Column::received: return by([](const Record& record, std::uint32_t) { return record.serverBytes; });
    case Column::start: return by([](const Record& record, std::uint32_t) { return sortKey(record.startTime); });
    case Column::duration: return by([](const Record& record, std::uint32_t) { return sortKey(record.endTime - record.startTime); });
    case Column::verdict:
    case Column::detail:
        return by([&, &ranks = names_.ranks()](const Record& record, std::uint32_t) {
            return static_cast<std::uint64_t>(record.tone) << 32 | ranks[record.verdict];
        });
    }
}

}  // namespace sealscope::desktop
