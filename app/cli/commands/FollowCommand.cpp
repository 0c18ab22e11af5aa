// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/StreamText.h"
#include "app/records/StreamRecords.h"
#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"
#include "app/session/InterpreterFailure.h"
#include "app/session/ResumedSessions.h"
#include "app/texts/DisplayText.h"
#include "app/verdict/StreamVerdict.h"

#include <algorithm>
#include <atomic>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// A stream as it is printed: its text, or what to make it from where that is too much to be held.
struct FollowedStream {
    std::int64_t number = 0;
    const VELStreamInterpreting* interpreter = nullptr;  ///< that accepted it
    std::string text;
    std::int64_t told = 0;               ///< messages in it
    StreamHeading heading;               ///< where there is no text yet
    std::optional<StreamPart> messages;  ///< all of them, where those are not too much either
    std::int64_t held = 0;               ///< bytes, about
    std::optional<InterpreterFailure> failure;
};

class Follower {
public:
    Follower(const CommandContext& context, const Session& session)
        : context_(context), session_(session), verdicts_(session), left_(mostMessages(context.options, session))
    {}

    FollowedStream follow(std::int64_t number) const
    {
        FollowedStream followed{.number = number};
        // What fails for one stream, a plug-in or the memory, fails for this one alone.
        try {
            interpret(followed);
        } catch (...) {
            followed.failure = InterpreterFailure::caught();
            followed.text.clear();
        }
        return followed;
    }

    /// False when the stream could not be told to its end.
    bool print(FollowedStream followed)
    {
        held_ -= followed.held;
        if (followed.told > left_)
            followed.text.clear();
        else
            left_ -= followed.told;
        if (!followed.interpreter && !followed.failure) {
            remark(fmt::format("--stream {}: no plug-in recognises what was said in this connection", followed.number));
            StreamPart nothing;
            if (context_.options.json) append(followed.text, {.summary = {.number = followed.number}}, telling(nothing), {});
        } else if (!followed.failure && followed.text.empty()) {
            const Spill spill([&](std::string& text) { context_.output.write(text); },
                              [&] { return context_.output.isOpen() && !isInterrupted(); });
            try {
                append(followed.text, followed.heading, counting(followed.messages ? telling(*followed.messages) : tellingAnew(followed)),
                       spill);
            } catch (...) {
                followed.failure = InterpreterFailure::caught();
            }
        }
        context_.output.write(followed.text);
        if (followed.failure) {
            const std::string_view name = followed.interpreter ? followed.interpreter->streamDisplayName : "a plug-in";
            complain(fmt::format("stream {}: {} could not interpret it: {}", followed.number, name, followed.failure->text()));
        }
        return !followed.failure;
    }

    /// Whether there were more messages than may be told.
    bool endsEarly() const { return endsEarly_; }

private:
    // What one stream may hold until it is printed, and what all may that wait for it, in bytes.
    static constexpr std::size_t largeMessages = 8 << 20;
    static constexpr std::int64_t largeBodies = 1'000'000;
    static constexpr std::int64_t mostHeld = 16 << 20;

    void interpret(FollowedStream& followed) const
    {
        const TCPStream stream = session_.stream(followed.number);
        followed.interpreter = session_.plugIns().interpreter(stream);
        if (!followed.interpreter) return;
        followed.heading = {.summary = session_.summary(followed.number), .interpreter = followed.interpreter->streamDisplayName};
        if (!context_.options.json) followed.heading.report = verdicts_.report(stream);
        auto messages = messagesToHold(*followed.interpreter, stream);
        const bool isOpen = messages && std::ranges::any_of(messages->messages, &StreamMessage::isDecrypted);
        if (!isOpen && followed.interpreter->layer == StreamLayer::security && foundResumedSession(session_, stream))
            messages = messagesToHold(*followed.interpreter, stream);
        if (!messages) return;

        std::int64_t bodies = 0;
        for (const StreamMessage& message : messages->messages) {
            bodies += message.body ? message.body->length() : 0;
            if (bodies > largeBodies) break;  // a length may have to be found by decoding
        }
        if (bodies > largeBodies) {
            for (const StreamMessage& message : messages->messages) followed.held += static_cast<std::int64_t>(message.heldBytes());
            followed.messages = std::move(messages);
        } else {
            const std::int64_t told = std::ssize(messages->messages);
            append(followed.text, followed.heading, telling(*messages), {});
            followed.told = told;
            followed.held = std::ssize(followed.text);
        }
        held_ += followed.held;
    }

    /// All messages of a stream, unless they are too much, or too much waits to be printed already.
    std::optional<StreamPart> messagesToHold(const VELStreamInterpreting& interpreter, const TCPStream& stream) const
    {
        if (held_ > mostHeld) return std::nullopt;
        StreamPart all;
        std::size_t bytes = 0;
        interpreter.tell(stream, session_.plugIns().context(), [&](StreamPart& part) {
            for (const StreamMessage& message : part.messages) bytes += message.heldBytes();
            if (bytes >= largeMessages) return false;
            std::ranges::move(part.messages, std::back_inserter(all.messages));
            std::ranges::move(part.pairings, std::back_inserter(all.pairings));
            return true;
        });
        if (bytes >= largeMessages) return std::nullopt;
        return all;
    }

    static StreamTeller telling(StreamPart& messages)
    {
        return [&](const StreamPartVisitor& visit) { visit(messages); };
    }

    /// Tells no more messages than may still be printed, each time that it is called.
    StreamTeller counting(StreamTeller tell)
    {
        return [this, tell = std::move(tell), most = left_](const StreamPartVisitor& visit) {
            left_ = most;
            bool isCut = false;
            tell([&](StreamPart& part) {
                if (isCut |= std::ssize(part.messages) > left_; isCut) cut(part, left_);
                left_ -= std::ssize(part.messages);
                return visit(part) && !isCut;
            });
            endsEarly_ = endsEarly_ || isCut;
        };
    }

    /// Interprets a stream while it is told.
    StreamTeller tellingAnew(const FollowedStream& followed) const
    {
        return [this, &followed](const StreamPartVisitor& visit) {
            followed.interpreter->tell(session_.stream(followed.number), session_.plugIns().context(), visit);
        };
    }

    void append(std::string& text, const StreamHeading& heading, const StreamTeller& tell, const Spill& spill) const
    {
        if (context_.options.json)
            appendRecord(text, heading.summary.number, tell, spill);
        else
            appendStreamText(text, heading, tell, context_.terminal, context_.options.bodies ? ShownBodies::whole : ShownBodies::beginnings,
                             spill);
    }

    const CommandContext& context_;
    const Session& session_;
    StreamVerdicts verdicts_;
    mutable std::atomic<std::int64_t> held_ = 0;  ///< by streams that wait to be printed
    std::int64_t left_;                           ///< messages that may be printed
    bool endsEarly_ = false;
};

ExitStatus runFollow(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const bool areNamed = !context.options.streams.empty();
    Follower follower(context, *session);

    std::int64_t accepted = 0;
    const auto weight = [&](std::int64_t number) { return session->weight(number); };
    const auto print = [&](FollowedStream followed) {
        const bool isAccepted = followed.interpreter || followed.failure;
        accepted += isAccepted;
        if ((isAccepted || areNamed) && !follower.print(std::move(followed))) status = std::max(status, failed);
        return context.output.isOpen() && !isInterrupted() && !follower.endsEarly();
    };
    inOrder(streams, weight, [&](std::int64_t number) { return follower.follow(number); }, print);
    context.output.flush();
    if (follower.endsEarly()) status = std::max(status, complainAboutMessages(mostMessages(context.options, *session)));
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
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges,
                Option::noInterpreters, Option::bodies, Option::largestBody, Option::mostMessages, Option::reach, Option::json,
                Option::filter, Option::count},
    .access = Access::captures,
    .isPaged = true,
    .run = runFollow};

}  // namespace sealscope::cli
