// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"

#include "app/cli/Interrupt.h"
#include "app/cli/text/Messages.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <span>
#include <utility>

namespace sealscope::cli {

namespace {

std::string counted(std::int64_t count, std::string_view noun) { return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s"); }

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

ExitStatus complainAbout(const CaptureError& error)
{
    const bool isOfFilter = error.file.empty();
    complain(isOfFilter ? "--filter: " + error.text() : error.text());
    return isOfFilter ? wrongCommandLine : failed;
}

std::unique_ptr<Capture> openCapture(const CommandContext& context, ExitStatus& status)
{
    context.confining.begin();
    auto capture = Capture::open(context.options.arguments,
                                 {.filter = context.options.filter, .maximumPackets = context.options.count, .stop = interruption()});
    if (capture) return std::move(*capture);
    status = complainAbout(capture.error());
    return nullptr;
}

ExitStatus complainAboutDamage(const CommandContext& context, const std::vector<CaptureError>& errors, const DecoderNotes& notes,
                               std::int64_t packets)
{
    ExitStatus status = done;
    const std::string files = filesText(context.options.arguments);
    for (const CaptureError& error : errors)
        if (!wasInterrupted() || error.file != "-") status = complainAbout(error);  // else it ends where the user ended it

    std::int64_t unreadable = 0;
    for (const auto& [linkType, count] : notes.unknownLinkTypes) unreadable += count;
    // A capture of which nothing could be read is no success; one with some packets of another kind is.
    const bool nothingWasReadable = unreadable > 0 && unreadable == packets;
    for (const std::string& sentence : linkTypeSentences(files, notes))
        if (nothingWasReadable)
            complain(sentence);
        else
            remark(sentence);
    if (nothingWasReadable) status = failed;
    if (notes.damagedPackets > 0)
        remark(fmt::format("{}: {} with damaged headers could not be read", files, counted(notes.damagedPackets, "packet")));
    if (notes.incompleteDatagrams > 0)
        remark(
            fmt::format("{}: {} could not be put together: fragments are missing", files, counted(notes.incompleteDatagrams, "datagram")));
    if (wasInterrupted()) {
        remark("interrupted; what was read until then is printed");
        status = failed;
    }
    return status;
}

}  // namespace sealscope::cli
