// SPDX-License-Identifier: Apache-2.0
//
// A plug-in for Internet Relay Chat (RFC 1459): an analyzer for packets, an interpreter for streams, and the principal class
// that describes both to the host. Over TLS it comes in when a stream decrypts, without knowing of TLS.
#include "host/VELDependencies/VELPlugInBundle.h"
#include "host/VELModels/VELNode.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <limits>

namespace {

using namespace sealscope;

std::string localized(std::string_view key) { return std::string(plugInBundle().localizedString(key, "LocalizableIRC")); }

/// A part of some bytes: where it begins, and its text.
struct Part {
    std::int64_t offset = 0;
    std::string_view text;
};

/// One line (RFC 1459 §2.3.1): [":" sender " "] command " " parameters. Offsets count from the line's first byte.
struct Line {
    Part sender;
    Part command;
    Part parameters;
};

/// The length of the line that begins at an offset, its line feed included; 0 when it has no end.
std::int64_t lineLength(std::string_view text, std::int64_t offset)
{
    const std::size_t end = text.find('\n', static_cast<std::size_t>(offset));
    return end == std::string_view::npos ? 0 : static_cast<std::int64_t>(end) + 1 - offset;
}

Line parseLine(std::string_view text)
{
    while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
    Line line;
    std::size_t offset = 0;
    const auto word = [&] {
        const std::size_t start = std::min(text.find_first_not_of(' ', offset), text.size());
        offset = std::min(text.find(' ', start), text.size());
        return Part{static_cast<std::int64_t>(start), text.substr(start, offset - start)};
    };
    if (text.starts_with(':')) {
        offset = 1;
        line.sender = word();
    }
    line.command = word();
    const std::size_t rest = std::min(text.find_first_not_of(' ', offset), text.size());
    line.parameters = {static_cast<std::int64_t>(rest), text.substr(rest)};
    return line;
}

bool isIRC(std::string_view text)
{
    const std::int64_t length = lineLength(text, 0);
    if (length == 0 || length > 512) return false;  // the longest line that there is (RFC 1459 §2.3)
    const std::string_view command = parseLine(text.substr(0, static_cast<std::size_t>(length))).command.text;
    static constexpr std::array known{"CAP",  "JOIN", "MODE",    "NICK", "NOTICE", "PART", "PASS",
                                      "PING", "PONG", "PRIVMSG", "QUIT", "TOPIC",  "USER"};
    const bool isReply = command.size() == 3 && std::ranges::all_of(command, [](char letter) { return letter >= '0' && letter <= '9'; });
    return (isReply && text.starts_with(':')) || std::ranges::find(known, command) != known.end();
}

std::string summary(const Line& line)
{
    const std::string_view target = line.parameters.text.substr(0, line.parameters.text.find(' '));
    return utf8::repaired(DataView(std::string(line.command.text) + (target.empty() ? "" : " ") + std::string(target)));
}

/// Calls a function with each line and where it begins.
template <class Function> void forEachLine(std::string_view text, Function function)
{
    for (std::int64_t offset = 0, length = 0; (length = lineLength(text, offset)) > 0; offset += length)
        function(parseLine(text.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(length))), offset, length);
}

class IRCAnalyzer final : public VELPluginAnalyzerProtocol {
public:
    static std::unique_ptr<VELPluginAnalyzerProtocol> create(DataView data, const std::any&)
    {
        if (!isIRC(data.text())) return nullptr;
        return std::make_unique<IRCAnalyzer>(data.size());
    }
    explicit IRCAnalyzer(std::int64_t size) : size_(clamped(size)) {}

    std::uint16_t protocolSize() const override { return size_; }
    std::optional<VELNodeList> protocolNodes() const override { return std::nullopt; }
    std::optional<std::string> nextProtocol() const override { return std::nullopt; }
    std::optional<std::string> protocolName() const override { return "IRC"; }
    std::optional<std::string> protocolInfo() const override { return std::nullopt; }
    bool hasPayload() const override { return false; }

    std::optional<std::string> protocolInfo(DataView data) const override { return "IRC: " + summary(firstLine(data)); }

    VELNodeList protocolNodes(DataView data) const override
    {
        const auto root = node("IRC", {}, 0, data.size());
        forEachLine(data.text(), [&](const Line& line, std::int64_t offset, std::int64_t length) {
            const auto message = node(localized("Message"), {}, offset, length);
            for (const auto& [name, part] : {std::pair{"Sender", line.sender}, {"Command", line.command}, {"Parameters", line.parameters}})
                if (!part.text.empty())
                    message->addChild(node(localized(name), part.text, part.offset, static_cast<std::int64_t>(part.text.size())));
            root->addChild(message);
        });
        return {root};
    }

    std::optional<VELValue> value(std::string_view key, DataView data) const override
    {
        if (key == "ircCommand") return utf8::repaired(DataView(firstLine(data).command.text));
        return std::nullopt;
    }

private:
    static Line firstLine(DataView data) { return parseLine(data.text().substr(0, static_cast<std::size_t>(lineLength(data.text(), 0)))); }
    static std::uint16_t clamped(std::int64_t number) { return static_cast<std::uint16_t>(std::clamp<std::int64_t>(number, 0, 0xFFFF)); }

    /// A node over a range of bytes, which counts from the start of its parent's.
    static std::shared_ptr<VELNodeProtocol> node(std::string name, std::string_view value, std::int64_t location, std::int64_t length)
    {
        auto made = value.empty() ? VELNode::nodeWithName(std::move(name))
                                  : VELNode::nodeWithName(std::move(name), utf8::repaired(DataView(value)));
        made->setHeaderLocations(clamped(location));
        made->setHeaderLengths(clamped(length));
        return made;
    }

    std::uint16_t size_;
};

struct IRCInterpreter {
    static constexpr std::string_view streamDisplayName = "IRC";

    static bool canInterpret(const TCPStream& stream)
    {
        const auto begins = [](const StreamData& data) { return isIRC(data.slice(0, 512).view().text()); };
        return begins(stream.clientToServerData) || begins(stream.serverToClientData);
    }

    static StreamInterpretation interpret(const TCPStream& stream)
    {
        StreamInterpretation result;
        for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient}) {
            const Data data = stream.data(direction).whole();
            forEachLine(data.view().text(), [&](const Line& line, std::int64_t offset, std::int64_t length) {
                const ByteRange range{offset, offset + length};
                const ByteLocation place = stream.locate(range, direction);
                std::vector<DetailRow> detail;
                if (!line.sender.text.empty()) detail.push_back({localized("Sender"), utf8::repaired(DataView(line.sender.text))});
                const bool isRequest = line.command.text == "PING", isReply = line.command.text == "PONG";
                const auto kind = isRequest ? StreamMessageKind::request : isReply ? StreamMessageKind::reply : StreamMessageKind::data;
                result.messages.push_back({.direction = direction,
                                           .kind = kind,
                                           .summary = summary(line),
                                           .detail = std::move(detail),
                                           .body = StreamBody::lazily(length, [=] { return data.sub(offset, length); }),
                                           .bodyHint = StreamBodyHint::text(TextEncoding::utf8),
                                           .byteRange = range,
                                           .packetIds = place.packetIds,
                                           .timestamp = place.timestamp.value_or(0),
                                           .attributes = {{"ircCommand", utf8::repaired(DataView(line.command.text))}}});
            });
        }
        std::ranges::stable_sort(result.messages, {}, &StreamMessage::timestamp);
        result.pairings = pairings(result.messages);
        return result;
    }

private:
    /// Each PING with the first PONG of the other side behind it.
    static std::optional<std::vector<Pairing>> pairings(const std::vector<StreamMessage>& messages)
    {
        std::vector<Pairing> all;
        for (std::size_t request = 0; request < messages.size(); ++request) {
            if (messages[request].kind != StreamMessageKind::request) continue;
            Pairing pairing{.requestIndex = static_cast<std::int64_t>(request), .summary = messages[request].summary};
            for (std::size_t reply = request + 1; reply < messages.size() && !pairing.replyIndex; ++reply) {
                if (messages[reply].kind != StreamMessageKind::reply || messages[reply].direction == messages[request].direction) continue;
                pairing.replyIndex = static_cast<std::int64_t>(reply);
                pairing.status = PairingStatus::matched;
            }
            all.push_back(std::move(pairing));
        }
        if (all.empty()) return std::nullopt;
        return all;
    }
};

const VELAnalyzerClass analyzerClass{
    .name = "IRCAnalyzer",
    .create = &IRCAnalyzer::create,
    .streamInterpreter = VELStreamInterpreting::type<IRCInterpreter>(),
};

/// Registers the plug-in when the host creates it.
class IRCPlugIn final : public VELPluginPrincipalClassProtocol {
public:
    static constexpr std::string_view principalClassName = "IRCPlugIn";
    static std::optional<std::string> pluginTitle() { return "IRC"; }
    static std::optional<std::string> pluginDescription() { return localized("Chat protocol of RFC 1459"); }
    static std::optional<std::string> pluginVersion() { return plugInBundleVersion(); }
    static std::optional<std::string> pluginAuthor() { return "The Sealscope developers"; }

    IRCPlugIn()
    {
        VELPlugInStructure structure;
        structure.id = UUID::random();
        structure.plugInTitle = *pluginTitle();
        structure.plugInDescription = *pluginDescription();
        structure.plugInVersion = *pluginVersion();
        structure.plugInAuthor = *pluginAuthor();
        structure.plugInPrincipalClass = &principalClassOf<IRCPlugIn>;
        structure.plugInAnalyzerClass = &analyzerClass;
        structure.plugInAnalyzerAttributes = {
            {&analyzerClass, localized("IRC Command"), "ircCommand", VELValueType::string, 0, std::numeric_limits<std::uint64_t>::max()}};
        structure.plugInTargetProtocols = {{.id = UUID::random(), .protocolName = "IRC", .protocolPorts = {6667}}};
        structure.plugInColumnKeyBindings = {{.columnTitle = localized("IRC Command"), .keyPath = "ircCommand"}};
        VELPlugInsController::sharedManager().registerVELPlugIn(std::move(structure), plugInBundle());
    }
};

}  // namespace

extern "C" const VELBundleEntry sealscope::velBundleEntry{
    .contractVersion = velContractVersion,
    .principalClass = &principalClassOf<IRCPlugIn>,
};
