// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"
#include "app/cli/Interrupt.h"
#include "app/cli/Progress.h"
#include "app/cli/commands/Commands.h"
#include "app/texts/DisplayText.h"
#include "app/cli/text/HexDump.h"
#include "app/cli/text/Messages.h"
#include "app/texts/TimeText.h"
#include "app/records/EndpointTexts.h"
#include "app/records/JSONLineWriter.h"
#include "app/records/Spill.h"
#include "app/session/PacketAnalyzers.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace sealscope::cli {

namespace {

using Node = VELNodeProtocol;

// A plug-in's tree is shown as deep as this: a program that is asked for a tree must not end for lack of stack.
constexpr int deepest = 200;

/// Says whether somebody still wants the tree.
using IsWanted = std::function<bool()>;

/// Writes a tree as nested objects.
class TreeJSON {
public:
    TreeJSON(JSONLineWriter& json, const IsWanted& isWanted) : json_(json), isWanted_(isWanted) {}

    void node(const Node& node, int depth)
    {
        json_.beginObject();
        json_.member("name", node.name());
        if (const auto& value = node.value()) json_.member("value", *value);
        if (const auto location = node.headerLocations()) json_.member("location", *location);
        if (const auto length = node.headerLengths()) json_.member("length", *length);
        json_.key("children");
        json_.beginArray();
        if (depth < deepest && node.hasChildren()) {
            // Captures no more than a function object holds in itself.
            node.forEachChild([this, depth](const std::shared_ptr<Node>& child) {
                this->node(*child, depth + 1);
                return isWanted_();
            });
        }
        json_.endArray();
        json_.endObject();
    }

private:
    JSONLineWriter& json_;
    const IsWanted& isWanted_;
};

/// Writes a tree as indented lines behind the place of each field in the payload.
class TreeText {
public:
    struct Look {
        bool showsBytes = false;
        bool hasColors = false;
    };
    TreeText(std::string& text, DataView payload, Look look, Spill spill, IsWanted isWanted)
        : text_(text), payload_(payload), look_(look), spill_(std::move(spill)), isWanted_(std::move(isWanted))
    {}

    void heading() { place(" offset  bytes", "  field"); }

    /// `parentStart` is where the node's own place counts from.
    void node(const Node& node, std::int64_t parentStart, int depth)
    {
        const auto location = node.headerLocations();
        const auto length = node.headerLengths();
        const std::int64_t start = parentStart + location.value_or(0);
        if (look_.hasColors) text_ += sequence(Style::faint);
        number(location ? std::optional(start) : std::nullopt, 7);
        number(length, 5 + 2);
        if (look_.hasColors) text_ += resetSequence;
        text_.append(2 + 2 * static_cast<std::size_t>(depth), ' ');
        const bool hasChildren = node.hasChildren();
        if (!hasChildren)
            appendDisplaySafe(text_, node.name());
        else
            styled(Style::strong, displaySafe(node.name()));
        if (const auto& value = node.value()) {
            const auto* const text = std::get_if<std::string>(&*value);
            const std::string other = text ? std::string() : displayText(*value);
            const std::string_view shown = text ? *text : other;
            text_ += shown.empty() ? ":" : ": ";
            appendDisplaySafe(text_, shown);
        }
        text_ += '\n';
        if (look_.showsBytes && !hasChildren && location && length)
            appendHexDump(text_, payload_.sub(start, *length), start,
                          {.bytesIndent = 11 + 2 * static_cast<std::size_t>(depth), .hasColors = look_.hasColors});
        spill_(text_);
        if (!hasChildren || depth >= deepest) return;
        const std::pair below(start, depth + 1);
        node.forEachChild([this, &below](const std::shared_ptr<Node>& child) {
            this->node(*child, below.first, below.second);
            return isWanted_();
        });
    }

private:
    void styled(Style style, std::string_view safe)
    {
        if (look_.hasColors) text_ += sequence(style);
        text_ += safe;
        if (look_.hasColors) text_ += resetSequence;
    }

    /// On the right of so many columns; they stay empty without one.
    void number(std::optional<std::int64_t> value, std::size_t columns)
    {
        const fmt::format_int digits(value.value_or(0));
        const std::string_view shown = value ? std::string_view(digits.data(), digits.size()) : std::string_view();
        text_.append(columns - std::min(columns, shown.size()), ' ');
        text_ += shown;
    }

    void place(std::string_view numbers, std::string_view rest)
    {
        styled(Style::faint, numbers);
        text_ += rest;
        if (!rest.empty()) text_ += '\n';
    }

    std::string& text_;
    DataView payload_;
    Look look_;
    Spill spill_;
    IsWanted isWanted_;
};

class TreePrinter {
public:
    explicit TreePrinter(const CommandContext& context) : context_(context) {}

    void print(const CapturedPacket& packet, const TCPPacket& segment, const PacketMatch& match)
    {
        const VELNodeList nodes = match.analyzer->protocolNodes(segment.payload);
        text_.clear();
        if (context_.options.json)
            json(packet, nodes);
        else
            lines(packet, segment, match, nodes);
        context_.output.write(text_);
    }

private:
    Spill spill() const
    {
        return Spill([this](std::string& text) { context_.output.write(text); });
    }
    IsWanted isWanted() const
    {
        return [this] { return context_.output.isOpen() && !isInterrupted(); };
    }

    void json(const CapturedPacket& packet, const VELNodeList& nodes)
    {
        JSONLineWriter json(text_, spill());
        json.beginObject();
        json.member("number", packet.number);
        json.key("nodes");
        json.beginArray();
        const IsWanted isWanted = this->isWanted();
        TreeJSON tree(json, isWanted);
        for (const auto& node : nodes) tree.node(*node, 0);
        json.endArray();
        json.endObject();
        text_ += '\n';
    }

    void lines(const CapturedPacket& packet, const TCPPacket& segment, const PacketMatch& match, const VELNodeList& nodes)
    {
        if (hasPrinted_) text_ += '\n';
        hasPrinted_ = true;
        const bool hasColors = context_.terminal.hasColors;
        if (hasColors) text_ += sequence(Style::accent);
        text_ += fmt::format("packet {}  ", packet.number);
        time_.appendDateAndClock(text_, packet.time.value());
        text_ += "  " + endpoints_.text(segment.source);
        text_ += " → " + endpoints_.text(segment.destination);
        if (const auto info = match.analyzer->protocolInfo(segment.payload)) {
            text_ += "  ";
            appendDisplaySafe(text_, *info);
        }
        if (hasColors) text_ += resetSequence;
        text_ += '\n';
        TreeText tree(text_, segment.payload, {.showsBytes = context_.options.hex, .hasColors = hasColors}, spill(), isWanted());
        tree.heading();
        for (const auto& node : nodes) tree.node(*node, 0, 0);
    }

    const CommandContext& context_;
    std::string text_;
    TimeText time_;
    EndpointTexts endpoints_;
    bool hasPrinted_ = false;
};

/// Why the packet that was asked for shows no tree.
enum class MissingTree : std::uint8_t { notRead, notPassed, noPayload, notRecognised };

ExitStatus explainMissing(std::int64_t wanted, std::int64_t packets, MissingTree missing)
{
    switch (missing) {
    case MissingTree::notRead:
        complain(packets == 0 ? fmt::format("--packet {}: the capture has no packets", wanted)
                              : fmt::format("--packet {}: the capture has {} packets, numbered from 1", wanted, packets));
        return wrongCommandLine;
    case MissingTree::notPassed: complain(fmt::format("--packet {}: the filter does not pass this packet", wanted)); break;
    case MissingTree::noPayload: complain(fmt::format("--packet {}: this packet carries no TCP payload", wanted)); break;
    case MissingTree::notRecognised: complain(fmt::format("--packet {}: no plug-in recognises the payload of this packet", wanted)); break;
    }
    return done;
}

ExitStatus runTree(const CommandContext& context)
{
    ExitStatus status = done;
    const auto capture = openCapture(context, status);
    if (!capture) return status;

    const auto wanted = context.options.packet;
    const PacketAnalyzers analyzers;
    PacketDecoder decoder;
    const bool hasProgress = !context.options.quiet && (wanted || !context.terminal.isTerminal);
    Progress progress("reading", hasProgress ? Progress::Showing::onTerminal : Progress::Showing::never);
    TreePrinter printer(context);

    CapturedPacket packet;
    TCPPacket segment;
    std::int64_t packets = 0, lastNumber = 0;
    auto missing = MissingTree::notPassed;  // where it was read
    bool isShown = false;
    while (context.output.isOpen() && !isInterrupted() && !(wanted && lastNumber >= *wanted) && capture->next(packet)) {
        ++packets;
        lastNumber = packet.number;
        progress.update(capture->bytesRead(), capture->bytesTotal());
        // Every packet is decoded, since one may complete a datagram of which earlier ones hold fragments.
        const bool hasSegment = decoder.decode(packet, segment) && !segment.payload.isEmpty();
        if (wanted && packet.number != *wanted) continue;
        missing = hasSegment ? MissingTree::notRecognised : MissingTree::noPayload;
        if (!hasSegment) continue;
        if (const PacketMatch match = analyzers.match(segment.payload)) {
            printer.print(packet, segment, match);
            isShown = true;
        }
    }
    context.output.flush();
    if (wanted && !isShown && context.output.isOpen()) {
        status = explainMissing(*wanted, lastNumber, lastNumber >= *wanted ? missing : MissingTree::notRead);
    }
    const ExitStatus damage = complainAboutDamage(context, capture->errors(), decoder.notes(), packets);
    return damage == done ? status : damage;
}

}  // namespace

const Command treeCommand{
    .name = "tree",
    .arguments = "FILE…",
    .summary = "the field tree of each such packet, or of one packet",
    .description = "Prints the fields of each packet that a plug-in recognises, with the place of each in the TCP payload: the offset\n"
                   "of its first byte, and how many there are.",
    .examples = "sealscope tree --packet 4 capture.pcapng|the fields of packet 4\n"
                "sealscope tree --packet 4 --hex capture.pcapng|with their bytes\n"
                "sealscope tree --json capture.pcapng|one JSON object a packet\n",
    .options = {Option::packet, Option::hex, Option::json, Option::filter, Option::count},
    .access = Access::captures,
    .plugIns = PlugInPurpose::packets,
    .isPaged = true,
    .run = runTree};

}  // namespace sealscope::cli
