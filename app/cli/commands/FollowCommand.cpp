// SPDX-License-Identifier: Apache-2.0
#include "app/cli/commands/Commands.h"
#include "app/cli/text/DisplayText.h"
#include "app/session/InOrder.h"
#include "app/cli/Interrupt.h"
#include "app/records/StreamRecords.h"
#include "app/cli/text/Messages.h"
#include "app/cli/StreamReading.h"
#include "app/cli/text/StreamText.h"
#include "app/verdict/StreamVerdict.h"

#include <fmt/format.h>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// A stream as it is printed: its text, or, where that is too large to be held, what to make it from.
struct FollowedStream {
    std::int64_t number = 0;
    bool isAccepted = false;  ///< by an interpreter
    std::string text;
    struct Untold {
        StreamHeading heading;
        StreamInterpretation interpretation;
    };
    std::optional<Untold> untold;
};

class Follower {
public:
    Follower(const CommandContext& context, const Session& session)
        : context_(context), session_(session), verdicts_(session)
    {}

    FollowedStream follow(std::int64_t number) const
    {
        FollowedStream followed{.number = number};
        const TCPStream stream = session_.stream(number);
        const VELStreamInterpreting* interpreter = session_.plugIns().interpreter(stream);
        if (!interpreter) return followed;
        followed.isAccepted = true;
        FollowedStream::Untold untold{.heading = {.summary = session_.summary(number), .interpreter = interpreter->streamDisplayName},
                                      .interpretation = interpreter->interpret(stream, session_.plugIns().context())};
        if (!context_.options.json) untold.heading.report = verdicts_.report(stream);
        if (isLarge(untold.interpretation))
            followed.untold = std::move(untold);
        else
            append(followed.text, untold, {});
        return followed;
    }

    void print(FollowedStream followed) const
    {
        if (!followed.isAccepted) {
            remark(fmt::format("--stream {}: no plug-in recognises what was said in this connection", followed.number));
            if (context_.options.json) append(followed.text, {.heading = {.summary = {.number = followed.number}}}, {});
        }
        if (followed.untold) append(followed.text, *followed.untold, Spill([&](std::string& text) { context_.output.write(text); }));
        context_.output.write(followed.text);
    }

private:
    static bool isLarge(const StreamInterpretation& interpretation)
    {
        constexpr std::int64_t largeBodies = 1'000'000;
        constexpr std::size_t manyMessages = 10'000;
        std::int64_t bodies = 0;
        for (const StreamMessage& message : interpretation.messages) bodies += message.body ? message.body->length() : 0;
        return bodies > largeBodies || interpretation.messages.size() > manyMessages;
    }

    void append(std::string& text, const FollowedStream::Untold& untold, const Spill& spill) const
    {
        if (context_.options.json)
            appendRecord(text, untold.heading.summary.number, untold.interpretation, spill);
        else
            appendStreamText(text, untold.heading, untold.interpretation, context_.terminal,
                             context_.options.bodies ? ShownBodies::whole : ShownBodies::beginnings, spill);
    }

    const CommandContext& context_;
    const Session& session_;
    StreamVerdicts verdicts_;
};

ExitStatus run(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const bool areNamed = !context.options.streams.empty();
    const Follower follower(context, *session);

    std::int64_t accepted = 0;
    const auto weight = [&](std::int64_t number) { return session->packets(number) * usualPayload; };
    const auto print = [&](FollowedStream followed) {
        accepted += followed.isAccepted;
        if (followed.isAccepted || areNamed) follower.print(std::move(followed));
        return context.output.isOpen() && !isInterrupted();
    };
    inOrder(streams, weight, [&](std::int64_t number) { return follower.follow(number); }, print);
    context.output.flush();
    if (accepted == 0 && !areNamed && status == done)
        remark(fmt::format("no plug-in recognises any of the {} TCP connections of this capture", streams.size()));
    return complainAboutDamage(context, *session, status);
}

}  // namespace

const Command followCommand{
    .name = "follow",
    .arguments = "FILE…",
    .summary = "what was said, stream by stream: messages, and which answers which",
    .description = "Prints the messages of each TCP connection that a plug-in recognises, as a conversation. Where the key logs hold the\n"
                   "secrets it is the decrypted one.",
    .examples = "sealscope follow capture.pcapng|every conversation\n"
                "sealscope follow --stream 3 -k keys.txt capture.pcapng|one of them, decrypted\n"
                "sealscope follow --json capture.pcapng|one JSON object a stream\n",
    .options = {Option::stream, Option::keylog, Option::noInterpreters, Option::bodies, Option::largestBody, Option::reach, Option::json, Option::filter, Option::count},
    .isPaged = true,
    .run = run};

}  // namespace sealscope::cli
