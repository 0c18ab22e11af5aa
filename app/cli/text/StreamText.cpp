// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/StreamText.h"

#include "app/texts/DisplayText.h"
#include "app/cli/text/HexDump.h"
#include "app/texts/TimeText.h"
#include "app/records/MessageRecords.h"
#include "app/records/StreamFacts.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <fmt/format.h>
#include <initializer_list>
#include <limits>
#include <unordered_map>
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
        pairings_ = tell({}).value_or(std::vector<Pairing>{});
        for (const Pairing& pairing : pairings_) {
            if (pairing.replyIndex)
                answered_[*pairing.replyIndex] = &pairing;
            else
                unanswered_[pairing.requestIndex] = &pairing;
        }
        // What has no time of its own, such as the plaintext of a whole direction, is read after what it came out of. There is little
        // of it as a rule; where there is much, the messages are gone through once more.
        constexpr std::size_t few = 1'000;
        std::vector<std::pair<std::int64_t, StreamMessage>> timeless;
        bool areFew = true;
        std::int64_t index = 0;
        tell([&](StreamMessage& said) {
            const std::int64_t position = index++;
            if (said.timestamp != 0) return message(said, position);
            if (areFew && timeless.size() < few)
                timeless.emplace_back(position, said);
            else
                areFew = false;
            return true;
        });
        if (areFew) {
            for (const auto& [position, said] : timeless)
                if (!message(said, position)) return;
            return;
        }
        timeless.clear();
        index = 0;
        tell([&](StreamMessage& said) {
            const std::int64_t position = index++;
            return said.timestamp != 0 || message(said, position);
        });
    }

private:
    bool message(const StreamMessage& said, std::int64_t position)
    {
        summaryLine(said);
        for (const DetailRow& row : said.detail) detail(row.name, row.value);
        if (const auto row = decodingRow(said)) detail(row->name, row->value);
        if (const auto found = answered_.find(position); found != answered_.end()) detail("Answers", found->second->summary);
        if (unanswered_.contains(position)) detail("Answer", "none");
        if (said.body) body(said);
        spill_(text_);
        return true;
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
        const std::int64_t length = message.body->length();
        const Data bytes = cutsBodies_ ? beginning(*message.body) : message.body->bytes();
        const DataView shown = bytes;
        const bool saysText = message.bodyHint && message.bodyHint->form == StreamBodyHint::Form::text;
        const bool isLatin1 = saysText && message.bodyHint->encoding == TextEncoding::latin1;
        const DataView whole = withoutCutScalar(shown, length);
        if (isLatin1)
            lines(latin1(shown));
        else if (saysText && isText(whole))
            lines(whole.text());
        else
            hexadecimal(shown);
        if (shown.size() < length) {
            text_.append(detailIndent + 2, ' ');
            styled(Style::faint,
                   fmt::format("… {} more bytes; --bodies prints all of them", length - shown.size()));
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

    /// What is shown of a longer body may end within a character.
    static DataView withoutCutScalar(DataView shown, std::int64_t whole)
    {
        if (shown.size() == whole) return shown;
        std::int64_t end = shown.size();
        for (int back = 0; back < 3 && end > 0 && (shown[end - 1] & 0xC0) == 0x80; ++back) --end;
        return end > 0 && shown[end - 1] >= 0xC0 ? shown.sub(0, end - 1) : shown;
    }

    void hexadecimal(DataView body)
    {
        constexpr std::int64_t piece = 16 * 1'024;
        for (std::int64_t offset = 0; offset < body.size(); offset += piece) {
            appendHexDump(text_, body.sub(offset, piece), offset, {.indent = detailIndent + 2, .hasColors = terminal_.hasColors});
            spill_(text_);
        }
    }

    void lines(std::string_view body)
    {
        while (!body.empty()) {
            const std::size_t end = std::min(body.find('\n'), body.size());
            std::string_view line = body.substr(0, end);
            if (line.ends_with('\r')) line.remove_suffix(1);
            text_.append(detailIndent, ' ');
            text_ += line.empty() ? "│" : "│ ";
            appendDisplaySafe(text_, line);
            text_ += '\n';
            body.remove_prefix(std::min(end + 1, body.size()));
            spill_(text_);
        }
    }

    std::string& text_;
    const Terminal& terminal_;
    bool cutsBodies_;
    const Spill& spill_;
    TimeText time_;
    std::vector<Pairing> pairings_;
    // By the position of a message: the pairing whose reply it is, or whose request without one.
    std::unordered_map<std::int64_t, const Pairing*> answered_, unanswered_;
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
