// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"

#include "app/cli/Interrupt.h"
#include "app/cli/text/Messages.h"
#include "app/records/DecoderSentences.h"

#include <utility>

namespace sealscope::cli {

ExitStatus complainAbout(const CaptureError& error)
{
    const bool isOfFilter = error.file.empty();
    complain(isOfFilter ? "--filter: " + error.text() : error.text());
    return isOfFilter ? wrongCommandLine : failed;
}

std::unique_ptr<Capture> openCapture(const CommandContext& context, ExitStatus& status)
{
    catchInterrupts();
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
    for (const CaptureError& error : errors)
        if (!wasInterrupted() || error.file != "-") status = complainAbout(error);  // else it ends where the user ended it

    // A capture of which nothing could be read is no success; one with some packets of another kind is.
    const DecoderSentences sentences = decoderSentences(context.options.arguments, notes, packets);
    for (const std::string& sentence : sentences.unknownLinkTypes)
        if (sentences.nothingWasReadable)
            complain(sentence);
        else
            remark(sentence);
    if (sentences.nothingWasReadable) status = failed;
    for (const std::string& sentence : sentences.losses) remark(sentence);
    if (wasInterrupted()) {
        remark("interrupted; what was read until then is printed");
        status = failed;
    }
    return status;
}

}  // namespace sealscope::cli
