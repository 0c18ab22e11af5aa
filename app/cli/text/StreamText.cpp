// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/StreamText.h"

#include "app/cli/text/HexDump.h"
#include "app/records/MessageRecords.h"
#include "app/records/StreamFacts.h"
#include "app/texts/DisplayText.h"
#include "app/texts/TimeText.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

constexpr std::int64_t bodyOnTerminal = 4'096;  ///< bytes of a body that a terminal shows
constexpr std::size_t detailIndent = 20;        ///< below the summaries: "22:13:20.250000 → "

/// Bytes that read as text: well-formed, and without the control characters that text does not have.
bool isText(DataView bytes)
{
    const auto isForeign = [](std::uint8_t byte) { return byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t'; };
    return std::ranges::none_of(bytes, isForeign) && utf8::isWellFormed(bytes);
}

std::string latin1(DataView bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) utf8::append(text, byte);
    return text;
}

enum class Cut : std::uint8_t { anywhere, betweenCharacters };

/// Hands over a body in pieces of some whole lines of hexadecimal until `take` gives false.
void forEachPiece(const StreamBody& body, Cut cut, const StreamBody::Take& take)
{
    constexpr std::int64_t pieceSize = 16'384;
    std::vector<std::uint8_t> waiting;
    bool goesOn = true;
    body.forEachPiece([&](DataView bytes) {
        while (goesOn && !bytes.isEmpty()) {
            const DataView part = bytes.sub(0, pieceSize - std::ssize(waiting));
            waiting.insert(waiting.end(), part.begin(), part.end());
            bytes = bytes.from(part.size());
            if (std::ssize(waiting) < pieceSize) break;
            const std::int64_t kept = cut == Cut::betweenCharacters ? utf8::cutScalar(waiting) : 0;
            goesOn = take(DataView(waiting).sub(0, std::ssize(waiting) - kept));
            waiting.erase(waiting.begin(), waiting.end() - kept);
        }
        return goesOn;
    });
    if (goesOn && !waiting.empty()) take(waiting);
}

bool isText(const StreamBody& body)
{
    bool isSo = true;
    forEachPiece(body, Cut::betweenCharacters, [&](DataView piece) { return isSo = isText(piece); });
    return isSo;
}

/// The lines of a text that comes in pieces, as they stand below a message.
class Lines {
public:
    Lines(std::string& text, const Spill& spill) : text_(text), spill_(spill) {}

    void add(std::string_view piece)
    {
        while (!piece.empty()) {
            const std::size_t end = piece.find('\n');
            addToLine(piece.substr(0, end));
            if (end == std::string_view::npos) break;
            endsInReturn_ = isInLine_ = false;
            text_ += '\n';
            spill_(text_);
            piece.remove_prefix(end + 1);
        }
        spill_(text_);
    }
    void end()
    {
        if (isInLine_) text_ += '\n';
    }

private:
    void addToLine(std::string_view part)
    {
        if (!std::exchange(isInLine_, true)) text_.append(detailIndent, ' ').append("│"), isEmpty_ = true;
        if (part.empty()) return;
        if (std::exchange(endsInReturn_, false)) append("\r");
        // It may be one half of the line's end.
        endsInReturn_ = part.ends_with('\r');
        part.remove_suffix(endsInReturn_);
        if (!part.empty()) append(part);
    }
    void append(std::string_view part)
    {
        if (std::exchange(isEmpty_, false)) text_ += ' ';
        appendDisplaySafe(text_, part);
    }

    std::string& text_;
    const Spill& spill_;
    bool isInLine_ = false, isEmpty_ = true, endsInReturn_ = false;
};

class Conversation {
public:
    Conversation(std::string& text, const Terminal& terminal, ShownBodies bodies, const Spill& spill)
        : text_(text), terminal_(terminal), cutsBodies_(terminal.isTerminal && bodies == ShownBodies::beginnings), spill_(spill)
    {}

    void heading(const StreamHeading& heading)
    {
        const StreamSummary& summary = heading.summary;
        styled(Style::strong, fmt::format("stream {}  {} → {}", summary.number, summary.client.text(), summary.server.text()));
        text_ += "  ";
        time_.appendDateAndClock(text_, summary.startTime);
        text_ += '\n';
        text_.append(2, ' ');
        styled(Style::faint, displaySafe(streamFacts(summary, heading.interpreter, heading.report)));
        text_ += '\n';
    }

    void messages(const StreamTeller& tell)
    {
        // What has no time of its own, such as the plaintext of a whole direction, is read after what it came out of. There is little
        // of it as a rule; where there is much, the messages are gone through once more.
        constexpr std::size_t few = 1'000;
        std::vector<std::pair<StreamMessage, Answer>> timeless;
        bool areFew = true;
        forEachMessage(tell, [&](StreamMessage& said, const Answer& answer) {
            if (said.timestamp != 0) return message(said, answer);
            if (areFew && timeless.size() < few)
                timeless.emplace_back(said, answer);
            else
                areFew = false;
            return true;
        });
        if (areFew) {
            for (const auto& [said, answer] : timeless)
                if (!message(said, answer)) return;
            return;
        }
        timeless.clear();
        forEachMessage(tell, [&](StreamMessage& said, const Answer& answer) { return said.timestamp != 0 || message(said, answer); });
    }

private:
    /// What is known of a message's other half.
    struct Answer {
        std::optional<std::string> answered;  ///< what the message answers
        bool isMissing = false;               ///< to this message there is none
    };

    static void forEachMessage(const StreamTeller& tell, const std::function<bool(StreamMessage&, const Answer&)>& visit)
    {
        tell([&](StreamPart& part) {
            std::vector<Answer> answers(part.messages.size());
            for (Pairing& pairing : part.pairings) {
                const std::int64_t place = pairing.replyIndex.value_or(pairing.requestIndex) - part.first;
                if (place < 0 || place >= std::ssize(answers)) continue;
                Answer& answer = answers[static_cast<std::size_t>(place)];
                if (pairing.replyIndex)
                    answer.answered = pairing.summary;
                else
                    answer.isMissing = true;
            }
            for (std::size_t i = 0; i < answers.size(); ++i)
                if (!visit(part.messages[i], answers[i])) return false;
            return true;
        });
    }

    bool message(const StreamMessage& said, const Answer& answer)
    {
        summaryLine(said);
        for (const DetailRow& row : said.detail) detail(row.name, row.value);
        if (const auto row = decodingRow(said)) detail(row->name, row->value);
        if (answer.answered) detail("Answers", *answer.answered);
        if (answer.isMissing) detail("Answer", "none");
        if (said.body) body(said);
        spill_(text_);
        return spill_.isWanted();
    }

    void styled(Style style, std::string_view safe)
    {
        const bool isColored = terminal_.hasColors && style != Style::plain;
        if (isColored) text_ += sequence(style);
        text_ += safe;
        if (isColored) text_ += resetSequence;
    }

    int room(std::size_t indent) const
    {
        return terminal_.columns > 0 ? std::max(terminal_.columns - static_cast<int>(indent), 20) : std::numeric_limits<int>::max();
    }

    void summaryLine(const StreamMessage& message)
    {
        std::string clock;
        // Messages that no packet carries have no time.
        if (message.timestamp != 0) time_.appendClock(clock, message.timestamp);
        styled(Style::faint, fmt::format("  {:{}}", clock, TimeText::clockWidth));
        const bool isClient = message.direction == TCPSegment::Direction::clientToServer;
        text_ += isClient ? " → " : " ← ";
        std::string summary;
        appendDisplaySafe(summary, message.summary, room(detailIndent));
        styled(isClient ? Style::accent : Style::good, summary);
        text_ += '\n';
    }

    void detail(std::string_view name, std::string_view value)
    {
        std::string line = displaySafe(name) + ": " + displaySafe(value);
        std::string cut;
        appendDisplaySafe(cut, line, room(detailIndent + 2));
        text_.append(detailIndent + 2, ' ');
        styled(Style::faint, cut);
        text_ += '\n';
    }

    void body(const StreamMessage& message)
    {
        const StreamBody& body = *message.body;
        const bool saysText = message.bodyHint && message.bodyHint->form == StreamBodyHint::Form::text;
        const bool isLatin1 = saysText && message.bodyHint->encoding == TextEncoding::latin1;
        if (cutsBodies_) return bodysBeginning(body, saysText, isLatin1);
        if (isLatin1 || (saysText && isText(body))) {
            Lines lines(text_, spill_);
            forEachPiece(body, isLatin1 ? Cut::anywhere : Cut::betweenCharacters, [&](DataView piece) {
                isLatin1 ? lines.add(latin1(piece)) : lines.add(piece.text());
                return spill_.isWanted();
            });
            lines.end();
        } else {
            std::int64_t offset = 0;
            forEachPiece(body, Cut::anywhere, [&](DataView piece) {
                hexadecimal(piece, std::exchange(offset, offset + piece.size()));
                return spill_.isWanted();
            });
        }
    }

    void bodysBeginning(const StreamBody& body, bool saysText, bool isLatin1)
    {
        const std::int64_t length = body.length();
        const Data bytes = beginning(body);
        const DataView shown = bytes;
        const DataView whole = shown.size() < length ? shown.sub(0, shown.size() - utf8::cutScalar(shown)) : shown;
        Lines lines(text_, spill_);
        if (isLatin1)
            lines.add(latin1(shown));
        else if (saysText && isText(whole))
            lines.add(whole.text());
        else
            hexadecimal(shown, 0);
        lines.end();
        if (shown.size() < length) {
            text_.append(detailIndent + 2, ' ');
            styled(Style::faint, fmt::format("… {} more bytes; --bodies prints all of them", length - shown.size()));
            text_ += '\n';
        }
    }

    /// As much of a body as a terminal is shown.
    static Data beginning(const StreamBody& body)
    {
        std::vector<std::uint8_t> bytes;
        body.forEachPiece([&](DataView piece) {
            const DataView taken = piece.sub(0, bodyOnTerminal - std::ssize(bytes));
            bytes.insert(bytes.end(), taken.begin(), taken.end());
            return std::ssize(bytes) < bodyOnTerminal;
        });
        return Data(std::move(bytes));
    }

    void hexadecimal(DataView bytes, std::int64_t offset)
    {
        appendHexDump(text_, bytes, offset, {.indent = detailIndent + 2, .hasColors = terminal_.hasColors});
        spill_(text_);
    }

    std::string& text_;
    const Terminal& terminal_;
    bool cutsBodies_;
    const Spill& spill_;
    TimeText time_;
};

}  // namespace

void appendStreamText(std::string& text, const StreamHeading& heading, const StreamTeller& tell, const Terminal& terminal,
                      ShownBodies bodies, const Spill& spill)
{
    Conversation conversation(text, terminal, bodies, spill);
    conversation.heading(heading);
    conversation.messages(tell);
    text += '\n';
}

}  // namespace sealscope::cli
