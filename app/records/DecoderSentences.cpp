// SPDX-License-Identifier: Apache-2.0
#include "app/records/DecoderSentences.h"

#include "app/texts/SizeText.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <span>
#include <string_view>
#include <utility>

namespace sealscope {

namespace {

/// What the notes are about; they do not say which of several files.
std::string filesText(const std::vector<std::string>& files)
{
    if (files.size() > 1) return "the capture";
    return files.front() == "-" ? "standard input" : files.front();
}

/// A sentence for each link type that is not known; for the most frequent ones, when there are many.
std::vector<std::string> linkTypeSentences(const std::string& files, const DecoderNotes& notes)
{
    constexpr std::size_t mostSentences = 4;
    std::vector<std::pair<std::uint32_t, std::int64_t>> types(notes.unknownLinkTypes.begin(), notes.unknownLinkTypes.end());
    std::ranges::stable_sort(types, std::ranges::greater{}, [](const auto& type) { return type.second; });
    std::vector<std::string> sentences;
    const std::size_t named = types.size() > mostSentences + 1 ? mostSentences : types.size();
    for (const auto& [linkType, count] : std::span(types).first(named))
        sentences.push_back(
            fmt::format("{}: link type {} is not known; {} of it could not be read", files, linkType, counted(count, "packet")));
    std::int64_t others = 0;
    for (const auto& [linkType, count] : std::span(types).subspan(named)) others += count;
    if (others > 0)
        sentences.push_back(fmt::format("{}: {} more link types are not known; {} of them could not be read", files, types.size() - named,
                                        counted(others, "packet")));
    return sentences;
}

}  // namespace

DecoderSentences decoderSentences(const std::vector<std::string>& files, const DecoderNotes& notes, std::int64_t packets)
{
    const std::string name = filesText(files);
    std::int64_t unreadable = 0;
    for (const auto& [linkType, count] : notes.unknownLinkTypes) unreadable += count;
    DecoderSentences sentences{.unknownLinkTypes = linkTypeSentences(name, notes),
                               .nothingWasReadable = unreadable > 0 && unreadable == packets};
    if (notes.damagedPackets > 0)
        sentences.losses.push_back(
            fmt::format("{}: {} with damaged headers could not be read", name, counted(notes.damagedPackets, "packet")));
    if (notes.incompleteDatagrams > 0)
        sentences.losses.push_back(fmt::format("{}: {} could not be put together: fragments are missing", name,
                                               counted(notes.incompleteDatagrams, "datagram")));
    return sentences;
}

}  // namespace sealscope
