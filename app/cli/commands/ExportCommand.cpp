// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Messages.h"
#include "app/export/FormatExport.h"
#include "app/records/JSONLineWriter.h"
#include "app/texts/DisplayText.h"
#include "host/VELModels/VELExporting.h"
#include "host/VELModels/VELPlugInsController.h"

#include <algorithm>
#include <fmt/format.h>

namespace sealscope::cli {

namespace {

void listFormats(const CommandContext& context)
{
    std::string text;
    for (const StreamExportFormat* format : VELPlugInsController::sharedManager().exportFormats()) {
        if (context.options.json) {
            JSONLineWriter json(text);
            json.beginObject();
            json.member("name", format->name);
            json.member("description", format->description);
            json.member("fileExtension", format->fileExtension);
            json.member("mediaType", format->mediaType);
            json.endObject();
            text += '\n';
        } else {
            text += fmt::format("{:<8}{}\n", displaySafe(format->name), displaySafe(format->description));
        }
    }
    if (text.empty()) remark("no plug-in offers a format to export to");
    context.output.write(text);
}

ExitStatus runExport(const CommandContext& context)
{
    const Options& options = context.options;
    if (options.arguments.empty()) return listFormats(context), done;
    const auto formats = VELPlugInsController::sharedManager().exportFormats();
    const auto format = std::ranges::find(formats, options.arguments.front(), [](const auto* each) { return each->name; });
    if (format == formats.end()) {
        std::vector<std::string_view> names;
        std::ranges::transform(formats, std::back_inserter(names), [](const auto* each) { return each->name; });
        const std::string_view near = nearestMatch(options.arguments.front(), names);
        complain(near.empty() ? fmt::format("export: there is no format '{}'; 'sealscope export' lists them", options.arguments.front())
                              : fmt::format("export: there is no format '{}'; did you mean '{}'?", options.arguments.front(), near));
        return wrongCommandLine;
    }
    if (options.arguments.size() < 2 || options.output.empty()) {
        complain(fmt::format("'export' is written 'sealscope export {} FILE… --output OUT'", (*format)->name));
        return wrongCommandLine;
    }
    // What cannot be written is told before the work.
    auto file =
        OutputFile::create(options.output, options.force ? ExistingFile::isReplaced : ExistingFile::stays, OutputFile::Kind::anything);
    if (!file) {
        complain(fmt::format("{}: {}", options.output, file.error().text()));
        return failed;
    }
    ExitStatus status = done;
    Options captureOptions = options;
    captureOptions.arguments.erase(captureOptions.arguments.begin());
    const CommandContext captureContext{
        .options = captureOptions, .terminal = context.terminal, .output = context.output, .confining = context.confining};
    const auto session = openSession(captureContext, status);
    if (!session) return status;
    const auto streams = wantedStreams(captureContext, *session, status);
    const std::int64_t most = mostMessages(options, *session);
    const ExportEnding ending = exportStreams(*session, streams, **format, *file, interruption(), most);
    if (ending == ExportEnding::tooManyMessages) {
        status = std::max(status, complainAboutMessages(most));
    } else if (ending == ExportEnding::tooManyBytes) {
        complain(fmt::format("{}: ends early: written as {}, the capture takes more than 448 MiB and 6 times its size", options.output,
                             (*format)->name));
        status = failed;
    }
    if (const auto finished = file->finish(); !finished) {
        complain(fmt::format("{}: {}", options.output, finished.error().text()));
        status = failed;
    }
    return complainAboutDamage(captureContext, *session, status);
}

}  // namespace

const Command exportCommand{
    .name = "export",
    .arguments = "FORMAT FILE…",
    .summary = "the capture in a format that a plug-in offers, such as an HTTP archive",
    .description = "Writes what was said in a format of another program. Without a FORMAT lists the formats.",
    .examples = "sealscope export|the formats\n"
                "sealscope export har -k keys.txt --output capture.har capture.pcapng|for a browser's developer tools\n",
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges, Option::reach,
                Option::output, Option::force, Option::largestBody, Option::mostMessages, Option::json, Option::filter, Option::count},
    .outputArgument = "FILE",
    .outputHelp = "write to FILE",
    .fewestArguments = 0,
    .access = Access::captures,
    .run = runExport};

}  // namespace sealscope::cli
