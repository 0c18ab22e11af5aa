// SPDX-License-Identifier: Apache-2.0
#include "app/records/MessageRecords.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

std::string_view name(StreamMessageKind kind)
{
    switch (kind) {
    case StreamMessageKind::data: return "data";
    case StreamMessageKind::handshake: return "handshake";
    case StreamMessageKind::request: return "request";
    case StreamMessageKind::reply: return "reply";
    }
    std::unreachable();
}

void writeRow(JSONLineWriter& json, const DetailRow& row)
{
    json.beginObject();
    json.member("name", row.name);
    json.member("value", row.value);
    json.endObject();
}

bool isCoded(const StreamMessage& message) { return message.body && message.attribute("contentEncoding"); }

std::optional<DetailRow> rowOf(const StreamMessage& message, const StreamBody::Ending& ending)
{
    constexpr std::string_view rowName = "Body incomplete";
    // That the body stops short of its end under its coding stands there already.
    if (ending.isComplete || std::ranges::find(message.detail, rowName, &DetailRow::name) != message.detail.end()) return std::nullopt;
    return DetailRow{std::string(rowName), ending.reason};
}

}  // namespace

std::string_view directionName(TCPSegment::Direction direction)
{
    return direction == TCPSegment::Direction::clientToServer ? "clientToServer" : "serverToClient";
}

std::optional<DetailRow> decodingRow(const StreamMessage& message)
{
    return isCoded(message) ? rowOf(message, message.body->ending()) : std::nullopt;
}

void writeMembers(JSONLineWriter& json, const StreamMessage& message, BodyMember body)
{
    // What is decoded to find out how it ends need not be decoded once more, unless it is too much to be held.
    constexpr std::int64_t mostDecoded = 1 << 20;
    std::vector<std::uint8_t> decoded;
    std::optional<DetailRow> row;
    bool isDecodedHere = body == BodyMember::written && isCoded(message);
    if (isDecodedHere) {
        row = rowOf(message, message.body->forEachPiece([&](DataView piece) {
            isDecodedHere = isDecodedHere && std::ssize(decoded) + piece.size() <= mostDecoded;
            if (isDecodedHere) decoded.insert(decoded.end(), piece.begin(), piece.end());
            return true;
        }));
    } else {
        row = decodingRow(message);
    }
    json.member("direction", directionName(message.direction));
    json.member("kind", name(message.kind));
    json.member("summary", message.summary);
    json.key("detail");
    json.beginArray();
    for (const DetailRow& known : message.detail) writeRow(json, known);
    if (row) writeRow(json, *row);
    json.endArray();
    if (body == BodyMember::written) {
        json.key("body");
        if (isDecodedHere)
            json.base64(Data(std::move(decoded)));
        else if (message.body)
            json.base64(*message.body);
        else
            json.null();
    }
    json.key("bodyHint");
    if (message.bodyHint)
        json.value(message.bodyHint->form == StreamBodyHint::Form::text ? "text" : "binary");
    else
        json.null();
    json.key("byteRange");
    if (message.byteRange) {
        json.beginArray();
        json.value(message.byteRange->lower);
        json.value(message.byteRange->upper);
        json.endArray();
    } else {
        json.null();
    }
    json.key("packetIds");
    json.beginArray();
    for (const std::int64_t packet : message.packetIds) json.value(packet);
    json.endArray();
    json.member("timestamp", message.timestamp);
    json.member("filename", message.filename);
    json.member("isDecrypted", message.isDecrypted);
    if (message.attributes.empty()) return;
    json.key("attributes");
    json.beginObject();
    for (const StreamAttribute& attribute : message.attributes) json.member(attribute.key, attribute.value);
    json.endObject();
}

void appendRecord(std::string& text, const StreamMessage& message)
{
    JSONLineWriter json(text);
    json.beginObject();
    writeMembers(json, message, BodyMember::written);
    json.endObject();
    text += '\n';
}

}  // namespace sealscope
