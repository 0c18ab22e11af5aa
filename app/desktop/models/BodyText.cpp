// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/BodyText.h"

#include "app/desktop/StringTableTranslator.h"
#include "app/texts/DisplayText.h"
#include "platform/UTF8.h"

#include <QJsonDocument>

#include <algorithm>
#include <fmt/format.h>
#include <utility>
#include <vector>

namespace sealscope::desktop {

namespace {

/// A widget lays a line out as a whole, and a script is often one line of a megabyte.
constexpr std::size_t longestLine = 2'000;

std::string latin1(DataView bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) utf8::append(text, byte);
    return text;
}

/// Bytes without the beginning of a character at their end whose rest was cut off.
DataView withoutCutScalar(DataView bytes)
{
    std::int64_t end = bytes.size();
    for (int back = 0; back < 3 && end > 0 && (bytes[end - 1] & 0xC0) == 0x80; ++back) --end;
    return end > 0 && bytes[end - 1] >= 0xC0 && !utf8::isWellFormed(bytes.from(end - 1)) ? bytes.sub(0, end - 1) : bytes;
}

/// Bytes that read as text though nobody says that they are.
bool readsAsText(DataView bytes)
{
    const auto isForeign = [](std::uint8_t byte) { return byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t'; };
    return !bytes.isEmpty() && std::ranges::none_of(bytes, isForeign) && utf8::isWellFormed(withoutCutScalar(bytes));
}

/// A line with its tabs, and escapes for what else is not to be obeyed.
void appendLine(std::string& output, std::string_view line)
{
    while (true) {
        const std::size_t tab = line.find('\t');
        appendDisplaySafe(output, line.substr(0, tab));
        if (tab == std::string_view::npos) return;
        output += '\t';
        line.remove_prefix(tab + 1);
    }
}

}  // namespace

std::optional<std::string> bodyText(DataView bytes, const std::optional<StreamBodyHint>& hint)
{
    const bool saysText = hint && hint->form == StreamBodyHint::Form::text;
    if (!saysText && !readsAsText(bytes)) return std::nullopt;
    const bool isLatin1 = saysText && hint->encoding == TextEncoding::latin1;
    const std::string decoded = isLatin1 ? latin1(bytes) : utf8::repaired(withoutCutScalar(bytes));
    std::string text;
    text.reserve(decoded.size());
    for (std::string_view rest = decoded; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.ends_with('\r')) line.remove_suffix(1);
        while (line.size() > longestLine) {
            std::size_t cut = longestLine;
            while (cut > 0 && (line[cut] & 0xC0) == 0x80) --cut;
            appendLine(text, line.substr(0, cut));
            text += '\n';
            line.remove_prefix(cut);
        }
        appendLine(text, line);
        if (!rest.empty()) text += '\n';
    }
    return text;
}

std::optional<std::string> indentedJSON(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || (text[first] != '{' && text[first] != '[')) return std::nullopt;
    QJsonParseError problem;
    QJsonDocument::fromJson(QByteArray::fromRawData(text.data(), std::ssize(text)), &problem);
    if (problem.error != QJsonParseError::NoError) return std::nullopt;
    // A text that is nothing but brackets would grow by its depth with every line.
    constexpr std::size_t deepestIndent = 40;
    std::string indented;
    indented.reserve(text.size() * 2);
    std::size_t depth = 0;
    const auto newLine = [&] { indented.append(1, '\n').append(2 * std::min(depth, deepestIndent), ' '); };
    const auto nextOf = [&](std::size_t at) { return std::min(text.find_first_not_of(" \t\r\n", at), text.size()); };
    for (std::size_t at = first; at < text.size(); at = nextOf(at)) {
        const char character = text[at++];
        if (character == '"') {
            const std::size_t begin = at - 1;
            while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
            at = std::min(at + 1, text.size());
            indented += text.substr(begin, at - begin);
        } else if (character == '{' || character == '[') {
            indented += character;
            const std::size_t next = nextOf(at);
            if (next < text.size() && (text[next] == '}' || text[next] == ']')) {
                indented += text[next];
                at = next + 1;
            } else {
                ++depth;
                newLine();
            }
        } else if (character == '}' || character == ']') {
            depth -= depth > 0;
            newLine();
            indented += character;
        } else if (character == ',') {
            indented += ',';
            newLine();
        } else if (character == ':') {
            indented += ": ";
        } else {
            indented += character;
        }
    }
    return indented;
}

Data beginningOf(const StreamBody& body, std::int64_t most)
{
    std::vector<std::uint8_t> bytes;
    body.forEachPiece([&](DataView piece) {
        const DataView taken = piece.sub(0, most - std::ssize(bytes));
        bytes.insert(bytes.end(), taken.begin(), taken.end());
        return std::ssize(bytes) < most;
    });
    return Data(std::move(bytes));
}

std::string messageText(const StreamMessage& message)
{
    constexpr std::int64_t longestText = 4 << 20, longestBinary = 4'096;
    std::string text = message.direction == TCPSegment::Direction::clientToServer ? "→ " : "← ";
    appendDisplaySafe(text, message.summary);
    text += '\n';
    for (const DetailRow& row : message.detail) {
        appendDisplaySafe(text, row.name);
        text += ": ";
        appendDisplaySafe(text, row.value);
        text += '\n';
    }
    if (!message.body) return text;
    const Data bytes = beginningOf(*message.body, longestText);
    std::int64_t told = bytes.size();
    text += '\n';
    if (const auto words = bodyText(bytes, message.bodyHint)) {
        text += *words;
    } else {
        told = std::min(told, longestBinary);
        text += hexText(bytes.view().sub(0, told));
    }
    text += '\n';
    if (const std::int64_t length = message.body->length(); told < length)
        text += windowReader().say("… {} more bytes", length - told) += '\n';
    return text;
}

}  // namespace sealscope::desktop
