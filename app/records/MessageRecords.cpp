// SPDX-License-Identifier: Apache-2.0
#include "app/records/MessageRecords.h"

#include <utility>

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

}  // namespace

std::string_view directionName(TCPSegment::Direction direction)
{
    return direction == TCPSegment::Direction::clientToServer ? "clientToServer" : "serverToClient";
}

void writeMembers(JSONLineWriter& json, const StreamMessage& message, BodyMember body)
{
    json.member("direction", directionName(message.direction));
    json.member("kind", name(message.kind));
    json.member("summary", message.summary);
    json.key("detail");
    json.beginArray();
    for (const DetailRow& row : message.detail) {
        json.beginObject();
        json.member("name", row.name);
        json.member("value", row.value);
        json.endObject();
    }
    json.endArray();
    if (body == BodyMember::written) {
        json.key("body");
        if (message.body)
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
