// SPDX-License-Identifier: Apache-2.0
#include "app/records/ExchangeRecords.h"

#include "app/records/EndpointTexts.h"
#include "app/records/JSONLineWriter.h"
#include "app/records/MessageRecords.h"

namespace sealscope {

namespace {

template <class Value> const Value* valueIn(const VELValue* value) { return value ? std::get_if<Value>(value) : nullptr; }

/// What machines ask of a message, found in one go.
struct KnownAttributes {
    explicit KnownAttributes(const StreamMessage& message)
    {
        for (const StreamAttribute& attribute : message.attributes) {
            const std::string_view key = attribute.key;
            if (key == "method")
                method = valueIn<std::string>(&attribute.value);
            else if (key == "url")
                url = valueIn<std::string>(&attribute.value);
            else if (key == "status")
                status = valueIn<std::int64_t>(&attribute.value);
            else if (key == "encodedBytes")
                encodedBytes = valueIn<std::int64_t>(&attribute.value);
            else if (key == "contentType")
                contentType = valueIn<std::string>(&attribute.value);
        }
    }

    const std::string* method = nullptr;
    const std::string* url = nullptr;
    const std::int64_t* status = nullptr;
    const std::int64_t* encodedBytes = nullptr;
    const std::string* contentType = nullptr;
};

/// A message without its body, and what machines ask of it as members of its own.
void writeSide(JSONLineWriter& json, const std::optional<StreamMessage>& message)
{
    if (!message) return json.null();
    const KnownAttributes known(*message);
    json.beginObject();
    if (known.method) json.member("method", *known.method);
    if (known.url) json.member("url", *known.url);
    if (known.status) json.member("status", *known.status);
    const std::int64_t bytes = message->body ? message->body->length() : 0;
    json.member("bodyBytes", bytes);
    json.member("encodedBytes", known.encodedBytes ? *known.encodedBytes : bytes);
    json.key("contentType");
    if (known.contentType)
        json.value(*known.contentType);
    else
        json.null();
    writeMembers(json, *message, BodyMember::leftOut);
    json.endObject();
}

}  // namespace

std::string protocolOf(const Exchange& exchange)
{
    for (const auto* const message : {&exchange.request, &exchange.reply})
        if (*message)
            if (const auto* const protocol = valueIn<std::string>((*message)->attribute("protocol"))) return *protocol;
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
    json.key("request");
    writeSide(json, exchange.request);
    json.key("reply");
    writeSide(json, exchange.reply);
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
