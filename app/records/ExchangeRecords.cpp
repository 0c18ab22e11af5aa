// SPDX-License-Identifier: Apache-2.0
#include "app/records/ExchangeRecords.h"

#include "app/records/EndpointTexts.h"
#include "app/records/JSONLineWriter.h"
#include "app/records/MessageRecords.h"

namespace sealscope {

namespace {

template <class Value> std::optional<Value> attribute(const StreamMessage& message, std::string_view key)
{
    const VELValue* const found = message.attribute(key);
    const auto* const value = found ? std::get_if<Value>(found) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
}

/// A message without its body, and what machines ask of it as members of its own.
void writeSide(JSONLineWriter& json, std::string_view key, const std::optional<StreamMessage>& message)
{
    json.key(key);
    if (!message) return json.null();
    json.beginObject();
    for (const char* const text : {"method", "url"})
        if (const auto value = attribute<std::string>(*message, text)) json.member(text, *value);
    if (const auto status = attribute<std::int64_t>(*message, "status")) json.member("status", *status);
    const std::int64_t bytes = message->body ? message->body->length() : 0;
    json.member("bodyBytes", bytes);
    json.member("encodedBytes", attribute<std::int64_t>(*message, "encodedBytes").value_or(bytes));
    json.member("contentType", attribute<std::string>(*message, "contentType"));
    writeMembers(json, *message, BodyMember::leftOut);
    json.endObject();
}

}  // namespace

std::string protocolOf(const Exchange& exchange)
{
    for (const auto* const message : {&exchange.request, &exchange.reply})
        if (*message)
            if (auto protocol = attribute<std::string>(**message, "protocol")) return *protocol;
    return {};
}

void appendRecord(std::string& text, const ExchangeStream& stream, const Exchange& exchange)
{
    const std::string protocol = protocolOf(exchange);
    JSONLineWriter json(text);
    json.beginObject();
    json.member("stream", stream.number);
    json.member("protocol", protocol.empty() ? std::nullopt : std::optional(protocol));
    json.member("time", exchange.time());
    json.member("duration", exchange.duration());
    // The exchanges of a stream come one after another.
    thread_local EndpointTexts endpoints;
    json.member("client", endpoints.text(stream.client));
    json.member("server", endpoints.text(stream.server));
    writeSide(json, "request", exchange.request);
    writeSide(json, "reply", exchange.reply);
    json.endObject();
    text += '\n';
}

void appendRecord(std::string& text, const SavedObject& object)
{
    JSONLineWriter json(text);
    json.beginObject();
    json.member("stream", object.stream);
    json.member("direction", directionName(object.direction));
    json.member("file", object.file.empty() ? std::nullopt : std::optional(object.file));
    json.member("name", object.name);
    json.member("url", object.url);
    json.member("contentType", object.contentType);
    json.member("bytes", object.bytes);
    json.member("complete", object.isComplete);
    json.member("remark", object.remark.empty() ? std::nullopt : std::optional(object.remark));
    json.endObject();
    text += '\n';
}

}  // namespace sealscope
