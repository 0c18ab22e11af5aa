// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/OutputFolder.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/DisplayText.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/SizeText.h"
#include "app/cli/text/TextTable.h"
#include "app/export/Objects.h"
#include "app/records/ExchangeRecords.h"
#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"

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
        const std::array<std::string, 5> texts{fmt::to_string(object.stream), sizeText(object.bytes), object.contentType.value_or(""),
                                               object.isComplete ? object.file : fmt::format("{} (incomplete: {})", object.file, object.remark),
                                               object.url.value_or("")};
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

/// For each message of an interpretation the URL that its body belongs to: its own, or that of the request that it answers.
std::vector<std::optional<std::string>> urlsOf(const StreamInterpretation& interpretation)
{
    const auto own = [](const StreamMessage& message) -> std::optional<std::string> {
        const VELValue* const value = message.attribute("url");
        const auto* const url = value ? std::get_if<std::string>(value) : nullptr;
        return url ? std::optional(*url) : std::nullopt;
    };
    std::vector<std::optional<std::string>> urls;
    std::ranges::transform(interpretation.messages, std::back_inserter(urls), own);
    const auto holds = [&](std::int64_t index) { return index >= 0 && index < std::ssize(urls); };
    for (const Pairing& pairing : interpretation.pairings.value_or(std::vector<Pairing>{}))
        if (pairing.replyIndex && holds(*pairing.replyIndex) && holds(pairing.requestIndex))
            urls[static_cast<std::size_t>(*pairing.replyIndex)] = urls[static_cast<std::size_t>(pairing.requestIndex)];
    return urls;
}

ExitStatus run(const CommandContext& context)
{
    const Options& options = context.options;
    if (options.output.empty()) {
        complain("'objects' needs --output DIR, the folder to save to");
        return wrongCommandLine;
    }
    if (const auto folder = prepareOutputFolder(options.output); !folder) {
        complain(fmt::format("--output {}: {}", options.output, folder.error()));
        return failed;
    }
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);

    ObjectFolder folder(options.output, options.force ? ObjectFolder::Existing::replaced : ObjectFolder::Existing::kept);
    ObjectTable table(context.terminal);
    std::string text;
    std::int64_t objects = 0;
    struct Interpreted {
        std::int64_t number = 0;
        std::optional<StreamInterpretation> interpretation;
    };
    const auto interpret = [&](std::int64_t number) { return Interpreted{number, applicationInterpretation(*session, session->stream(number))}; };
    const auto save = [&](Interpreted interpreted) {
        if (!interpreted.interpretation) return !isInterrupted();
        auto urls = urlsOf(*interpreted.interpretation);
        for (std::size_t i = 0; i < urls.size(); ++i) {
            const StreamMessage& message = interpreted.interpretation->messages[i];
            if (message.kind != StreamMessageKind::request && message.kind != StreamMessageKind::reply) continue;
            const auto object = folder.save(interpreted.number, message, std::move(urls[i]), interruption());
            if (!object) continue;
            if (!object->problem.empty()) {
                complain(object->problem);
                status = failed;
                return false;  // the others would only say the same
            }
            ++objects;
            text.clear();
            if (options.json)
                appendRecord(text, *object);
            else
                table.append(text, *object);
            context.output.write(text);
            if (!context.output.isOpen() || isInterrupted()) return false;
        }
        return true;
    };
    const auto weight = [&](std::int64_t number) { return session->packets(number) * usualPayload; };
    inOrder(streams, weight, interpret, save);
    context.output.flush();
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
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::reach, Option::output, Option::force,
                Option::largestBody, Option::json, Option::filter, Option::count},
    .access = Access::captures,
    .run = run};

}  // namespace sealscope::cli
