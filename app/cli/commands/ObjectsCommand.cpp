// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/TextTable.h"
#include "app/export/Objects.h"
#include "app/export/OutputFolder.h"
#include "app/records/ExchangeRecords.h"
#include "app/texts/DisplayText.h"
#include "app/texts/SizeText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

class ObjectTable {
public:
    explicit ObjectTable(const Terminal& terminal) : table_(columns(), terminal) {}

    void append(std::string& text, const SavedObject& object)
    {
        if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
        const std::array<std::string, 5> texts{
            fmt::to_string(object.stream), sizeText(object.bytes), object.contentType.value_or(""),
            object.isComplete ? object.file : fmt::format("{} (incomplete: {})", object.file, object.remark), object.url.value_or("")};
        std::array<std::string_view, 5> views;
        std::ranges::copy(texts, views.begin());
        table_.appendRow(text, views);
    }

private:
    static std::vector<TextColumn> columns()
    {
        using enum TextColumn::Alignment;
        return {
            {.title = "Stream", .alignment = right, .narrowest = 6, .widest = 10, .isFirm = true, .style = Style::faint},
            {.title = "Size", .alignment = right, .narrowest = 8, .widest = 8, .isFirm = true},
            {.title = "Type", .narrowest = 12, .widest = 24},
            {.title = "File", .narrowest = 20, .widest = 60, .style = Style::accent},
            {.title = "URL", .narrowest = 16},
        };
    }

    TextTable table_;
    bool hasHeading_ = false;
};

ExitStatus runObjects(const CommandContext& context)
{
    const Options& options = context.options;
    if (options.output.empty()) {
        complain("'objects' needs --output DIR, the folder to save to");
        return wrongCommandLine;
    }
    if (const auto folder = prepareOutputFolder(options.output); !folder) {
        complain(fmt::format("--output {}: {}", options.output, folder.error().text()));
        return failed;
    }
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);

    ObjectFolder folder(options.output, options.force ? ObjectFolder::Existing::replaced : ObjectFolder::Existing::kept);
    ObjectTable table(context.terminal);
    std::string text;
    // Files take time and room apart from their bytes, and ten bytes of a capture can stand for one.
    const std::int64_t mostObjects = 1'500 + session->capture().bytesOfFiles() / 2'048;
    std::int64_t objects = 0;
    const std::int64_t most = mostMessages(options, *session);
    const auto tell = [&](const SavedObject& object) {
        if (object.problem) {
            complain(object.problem->text());
            status = failed;
            return false;  // the others would only say the same
        }
        ++objects;
        text.clear();
        if (options.json)
            appendRecord(text, object);
        else
            table.append(text, object);
        context.output.write(text);
        if (objects == mostObjects) {
            complain(fmt::format("{} bodies are saved, and a capture of this size is given no more files; if there are more, --stream N "
                                 "saves those of one connection",
                                 objects));
            status = failed;
            return false;
        }
        return context.output.isOpen();
    };
    const bool isWhole = saveObjects(*session, streams, folder, interruption(), tell, most);
    context.output.flush();
    if (!isWhole) status = std::max(status, complainAboutMessages(most));
    if (objects == 0 && status == done && !isInterrupted())
        remark("nothing to save: no message of this capture has a body; 'sealscope streams' says what does not decrypt");
    return complainAboutDamage(context, *session, status);
}

}  // namespace

const Command objectsCommand{
    .name = "objects",
    .arguments = "FILE…",
    .summary = "save every body that was carried, decoded, under its suggested name",
    .description =
        "Saves the body of each request and reply to a file in a folder, without compression, and prints a row each. A name that\n"
        "is taken gets a number; nothing that exists is replaced without --force.",
    .examples = "sealscope objects -k keys.txt --output saved capture.pcapng|everything that was downloaded and uploaded\n",
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges, Option::reach,
                Option::output, Option::force, Option::largestBody, Option::mostMessages, Option::json, Option::filter, Option::count},
    .outputHelp = "save to DIR, which is made when its parent exists",
    .access = Access::captures,
    .run = runObjects};

}  // namespace sealscope::cli
