// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"

#include "app/cli/Interrupt.h"
#include "app/cli/text/Messages.h"

#include <fmt/format.h>

namespace sealscope::cli {

namespace {

std::string counted(std::int64_t count, std::string_view noun) { return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s"); }

/// What the notes are about; they do not say which of several files.
std::string filesText(const std::vector<std::string>& files)
{
    if (files.size() > 1) return "the capture";
    return files.front() == "-" ? "standard input" : files.front();
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
    for (const auto& [linkType, count] : notes.unknownLinkTypes) {
        const std::string sentence =
            fmt::format("{}: link type {} is not known; {} of it could not be read", files, linkType, counted(count, "packet"));
        if (nothingWasReadable)
            complain(sentence);
        else
            remark(sentence);
    }
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
