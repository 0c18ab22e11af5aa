// SPDX-License-Identifier: Apache-2.0
#include "python/core/KeyLines.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

namespace sealscope::python {

namespace {

constexpr std::string_view spaces = " \t\r\n\v\f";
constexpr std::size_t randomDigits = 64;

std::optional<std::uint8_t> digit(char character)
{
    if (character >= '0' && character <= '9') return static_cast<std::uint8_t>(character - '0');
    if (character >= 'a' && character <= 'f') return static_cast<std::uint8_t>(character - 'a' + 10);
    if (character >= 'A' && character <= 'F') return static_cast<std::uint8_t>(character - 'A' + 10);
    return std::nullopt;
}

std::string_view takeWord(std::string_view& line)
{
    line.remove_prefix(std::min(line.find_first_not_of(spaces), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(spaces));
    line.remove_prefix(word.size());
    return word;
}

/// Of a line "LABEL CLIENT_RANDOM SECRET", whose it is.
std::optional<KeyLines::Client> clientOf(std::string_view line)
{
    takeWord(line);
    const std::string_view random = takeWord(line);
    if (random.size() != randomDigits || takeWord(line).empty() || !takeWord(line).empty()) return std::nullopt;
    std::array<std::uint8_t, randomDigits / 2> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto high = digit(random[2 * i]);
        const auto low = digit(random[2 * i + 1]);
        if (!high || !low) return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(*high << 4 | *low);
    }
    KeyLines::Client client;
    std::memcpy(&client, bytes.data(), sizeof client);
    return client;
}

}  // namespace

KeyLines::KeyLines(SecretText text) : text_(std::move(text))
{
    const std::string_view all(text_.data(), text_.size());
    std::vector<std::pair<Client, std::uint32_t>> ofClients;
    for (std::size_t at = 0; at < all.size();) {
        const std::size_t end = std::min(all.find('\n', at), all.size() - 1) + 1;
        const auto number = static_cast<std::uint32_t>(lines_.size());
        if (const auto client = clientOf(all.substr(at, end - at)))
            ofClients.emplace_back(*client, number);
        else
            ofAnybody_.push_back(number);
        lines_.emplace_back(at, end);
        at = end;
    }
    std::ranges::sort(ofClients);
    linesOf_.reserve(ofClients.size());
    for (const auto& [client, line] : ofClients) {
        const auto place = static_cast<std::uint32_t>(ofClients_.size());
        linesOf_.try_emplace(client, place, place).first->second.second = place + 1;
        ofClients_.push_back(line);
    }
}

KeyLines::Lines KeyLines::linesOf(std::vector<Client> clients) const
{
    std::ranges::sort(clients);
    const auto repeated = std::ranges::unique(clients);
    clients.erase(repeated.begin(), repeated.end());
    std::vector<std::uint32_t> lines;
    for (const Client client : clients)
        if (const auto found = linesOf_.find(client); found != linesOf_.end())
            lines.insert(lines.end(), ofClients_.begin() + found->second.first, ofClients_.begin() + found->second.second);
    if (lines.empty()) return lines;
    lines.insert(lines.end(), ofAnybody_.begin(), ofAnybody_.end());
    std::ranges::sort(lines);
    return lines;
}

KeyLines::Lines KeyLines::together(const std::vector<Lines>& several)
{
    std::vector<std::uint32_t> all;
    for (const Lines& lines : several) {
        if (!lines) return std::nullopt;
        all.insert(all.end(), lines->begin(), lines->end());
    }
    std::ranges::sort(all);
    const auto repeated = std::ranges::unique(all);
    all.erase(repeated.begin(), repeated.end());
    return all;
}

SecretText KeyLines::text(const Lines& lines) const
{
    if (!lines) return text_;
    std::size_t size = 0;
    for (const std::uint32_t line : *lines) size += lines_.at(line).second - lines_[line].first;
    SecretText text;
    text.reserve(size);
    for (const std::uint32_t line : *lines) text.append(text_.data() + lines_[line].first, lines_[line].second - lines_[line].first);
    return text;
}

KeyLines::Needs KeyLines::needs(std::span<const File> files) const
{
    struct OfGroup {
        std::vector<Client> clients;
        bool needsAll = false;
    };
    std::map<std::int64_t, OfGroup> groups;
    std::vector<std::pair<PairHash, Client>> travelling;
    std::unordered_map<PairHash, std::int64_t> unmet;
    Needs needs;
    for (const File& file : files) {
        for (const auto& [pair, group] : file.travelling) groups[group];
        std::vector<Client> own;
        for (const auto& [pair, client] : file.clients) {
            if (!has(client)) continue;
            const auto found = file.travelling.find(pair);
            if (found == file.travelling.end()) {
                own.push_back(client);
            } else {
                groups[found->second].clients.push_back(client);
                travelling.emplace_back(pair, client);
            }
        }
        // Pairs that stay are of this file alone, so nobody counts theirs twice.
        needs.connections += std::ssize(own);
        bool needsAll = false;
        for (const PairHash pair : file.strangers) {
            const auto found = file.travelling.find(pair);
            if (found == file.travelling.end())
                needsAll = true;
            else
                unmet.emplace(pair, found->second);
        }
        needs.ofFiles.push_back(needsAll ? std::nullopt : linesOf(std::move(own)));
    }
    std::ranges::sort(travelling);
    needs.connections += std::distance(travelling.begin(), std::ranges::unique(travelling).begin());
    // A pair is a stranger where none of its files has its hello.
    if (!unmet.empty())
        for (const File& file : files)
            for (const auto& [pair, client] : file.clients) unmet.erase(pair);
    for (const auto& [pair, group] : unmet) groups[group].needsAll = true;
    for (auto& [group, found] : groups) needs.ofGroups.emplace(group, found.needsAll ? std::nullopt : linesOf(std::move(found.clients)));
    return needs;
}

}  // namespace sealscope::python
