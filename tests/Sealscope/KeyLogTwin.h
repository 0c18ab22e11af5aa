// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unigbrk.h>
#include <utility>
#include <vector>

// The key log's grammar once more, as it is told rather than as it is fast: the text is cut into grapheme clusters by a
// library, and everything else is said about clusters. Tests and the fuzz target compare both on the same input.

namespace sealscope::twin {

using Secrets = std::map<std::pair<std::string, std::string>, std::string>;
using Clusters = std::vector<std::string>;

inline Clusters clustersOf(const std::string& text)
{
    std::vector<char> isBreak(text.size());
    u8_grapheme_breaks(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), isBreak.data());
    Clusters clusters;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isBreak[i] != 0 || clusters.empty()) clusters.emplace_back();
        clusters.back() += text[i];
    }
    return clusters;
}

inline bool isLineBreak(const std::string& cluster)
{
    static const std::vector<std::string> breaks{"\n", "\v", "\f", "\r", "\r\n", "\u0085", "\u2028", "\u2029"};
    return std::ranges::find(breaks, cluster) != breaks.end();
}

inline bool isHorizontalSpace(const std::string& cluster)
{
    static const std::vector<std::string> spaces{"\t",     " ",      "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003", "\u2004",
                                                 "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u202F", "\u205F", "\u3000"};
    return std::ranges::find(spaces, cluster) != spaces.end();
}

inline std::optional<std::string> decodeHex(const Clusters& clusters)
{
    if (clusters.size() % 2 != 0) return std::nullopt;
    const auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    };
    std::string bytes;
    for (std::size_t i = 0; i < clusters.size(); i += 2) {
        const std::string pair = clusters[i] + clusters[i + 1];
        if (pair.size() != 2) return std::nullopt;
        const bool hasSign = pair[0] == '+' || pair[0] == '-';
        int value = 0;
        for (const char c : hasSign ? pair.substr(1) : pair) {
            if (digit(c) < 0) return std::nullopt;
            value = value * 16 + digit(c);
        }
        if (pair[0] == '-' && value != 0) return std::nullopt;
        bytes += static_cast<char>(value);
    }
    return bytes;
}

inline void takeLine(Clusters line, Secrets& secrets, TLSKeyLogLineCount& count)
{
    while (!line.empty() && isHorizontalSpace(line.front())) line.erase(line.begin());
    while (!line.empty() && isHorizontalSpace(line.back())) line.pop_back();
    if (line.empty() || line.front() == "#") return;
    ++count.lines;
    std::vector<Clusters> fields(1);
    for (const std::string& cluster : line) {
        if (cluster != " ")
            fields.back().push_back(cluster);
        else if (!fields.back().empty())
            fields.emplace_back();
    }
    if (fields.size() != 3) return;
    const auto clientRandom = decodeHex(fields[1]);
    const auto secret = decodeHex(fields[2]);
    if (!clientRandom || !secret) return;
    ++count.validLines;
    std::string label;
    for (const std::string& cluster : fields[0]) label += cluster;
    secrets[{label, *clientRandom}] = *secret;
}

/// The secrets of a text, and its lines; the first invalid line is left at 0.
inline std::pair<Secrets, TLSKeyLogLineCount> parse(std::string_view text)
{
    std::pair<Secrets, TLSKeyLogLineCount> result;
    Clusters line;
    for (const std::string& cluster : clustersOf(utf8::repaired(DataView(text)))) {
        if (!isLineBreak(cluster)) {
            line.push_back(cluster);
            continue;
        }
        takeLine(std::exchange(line, {}), result.first, result.second);
    }
    takeLine(line, result.first, result.second);
    return result;
}

inline Secrets secretsOf(const TLSKeyLog& keyLog)
{
    Secrets secrets;
    keyLog.secrets.forEach([&](std::string_view label, DataView clientRandom, DataView secret) {
        secrets[{std::string(label), std::string(clientRandom.text())}] = secret.text();
    });
    return secrets;
}

}  // namespace sealscope::twin
