// SPDX-License-Identifier: Apache-2.0
#include "app/records/DecoderSentences.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <span>
#include <string_view>
#include <utility>

namespace sealscope {

namespace {

/// What the notes are about; they do not say which of several files.
std::string filesText(const std::vector<std::string>& files, const SentenceReader& reader)
{
    if (files.size() > 1) return reader.say("the capture");
    return files.front() == "-" ? reader.say("standard input") : files.front();
}

/// A sentence for each link type that is not known; for the most frequent ones, when there are many.
std::vector<std::string> linkTypeSentences(const std::string& files, const DecoderNotes& notes, const SentenceReader& reader)
{
    constexpr std::size_t mostSentences = 4;
    std::vector<std::pair<std::uint32_t, std::int64_t>> types(notes.unknownLinkTypes.begin(), notes.unknownLinkTypes.end());
    std::ranges::stable_sort(types, std::ranges::greater{}, [](const auto& type) { return type.second; });
    std::vector<std::string> sentences;
    const std::size_t named = types.size() > mostSentences + 1 ? mostSentences : types.size();
    for (const auto& [linkType, count] : std::span(types).first(named))
        sentences.push_back(reader.sayOf(count, "{}: link type {} is not known; {} packet of it could not be read",
                                         "{}: link type {} is not known; {} packets of it could not be read", files,
                                         fmt::to_string(linkType), count));
    std::int64_t others = 0;
    for (const auto& [linkType, count] : std::span(types).subspan(named)) others += count;
    if (others > 0)
        sentences.push_back(
            reader.say("{}: {} more link types are not known; {} packets of them could not be read", files, types.size() - named, others));
    return sentences;
}

}  // namespace

DecoderSentences decoderSentences(const std::vector<std::string>& files, const DecoderNotes& notes, std::int64_t packets,
                                  const SentenceReader& reader)
{
    const std::string name = filesText(files, reader);
    std::int64_t unreadable = 0;
    for (const auto& [linkType, count] : notes.unknownLinkTypes) unreadable += count;
    DecoderSentences sentences{.unknownLinkTypes = linkTypeSentences(name, notes, reader),
                               .nothingWasReadable = unreadable > 0 && unreadable == packets};
    if (notes.damagedPackets > 0)
        sentences.losses.push_back(reader.sayOf(notes.damagedPackets, "{}: {} packet with damaged headers could not be read",
                                                "{}: {} packets with damaged headers could not be read", name, notes.damagedPackets));
    if (notes.incompleteDatagrams > 0)
        sentences.losses.push_back(
            reader.sayOf(notes.incompleteDatagrams, "{}: {} datagram could not be put together: fragments are missing",
                         "{}: {} datagrams could not be put together: fragments are missing", name, notes.incompleteDatagrams));
    return sentences;
}

}  // namespace sealscope
