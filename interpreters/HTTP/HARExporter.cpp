// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HARExporter.h"

#include "host/VELDependencies/VELPlugInBundle.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "platform/Base64.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

namespace sealscope {

namespace {

using JSON = HARValues::JSON;

// As much of a body is looked at to tell whether it is the text that it says it is.
constexpr std::int64_t sniffed = 65'536;
// A piece of text or Base64 at most, in bytes: a multiple of three.
constexpr std::int64_t pieceSize = 49'152;

std::string text(const JSON& value) { return value.dump(-1, ' ', false, JSON::error_handler_t::replace); }

/// A text as it stands between a JSON string's quotes.
std::string escaped(std::string text_)
{
    std::string quoted = text(JSON(std::move(text_)));
    return quoted.substr(1, quoted.size() - 2);
}

/// How many bytes at the end are the beginning of a scalar that goes on behind it.
std::int64_t cutScalar(DataView bytes)
{
    for (std::int64_t back = 1; back <= std::min<std::int64_t>(3, bytes.size()); ++back) {
        const std::uint8_t byte = bytes[bytes.size() - back];
        if ((byte & 0xC0) == 0x80) continue;
        const std::int64_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return length > back ? back : 0;
    }
    return 0;
}

std::string latin1(DataView bytes)
{
    std::string text_;
    for (const std::uint8_t byte : bytes) utf8::append(text_, byte);
    return text_;
}

bool isText(const StreamMessage& message)
{
    if (!message.bodyHint || message.bodyHint->form != StreamBodyHint::Form::text) return false;
    if (message.bodyHint->encoding == TextEncoding::latin1) return true;
    std::vector<std::uint8_t> first;
    message.body->forEachPiece([&](DataView piece) {
        const DataView part = piece.sub(0, sniffed - std::ssize(first));
        first.insert(first.end(), part.begin(), part.end());
        return std::ssize(first) < sniffed;
    });
    return utf8::isWellFormed(DataView(first).sub(0, std::ssize(first) - cutScalar(first)));
}

double milliseconds(double seconds) { return std::max(0.0, std::round(seconds * 1e6) / 1e3); }

double endOf(const StreamMessage& message) { return message.endTimestamp.value_or(message.timestamp); }

/// The version as HAR has it: a call of gRPC goes over HTTP/2.
std::string httpVersion(const StreamMessage& message)
{
    const std::string_view protocol = HTTPMessages::text(message, "protocol");
    return std::string(protocol == "gRPC" ? "HTTP/2" : protocol);
}

std::string addressOf(const TCPStreamKey::Endpoint& endpoint)
{
    std::string address = endpoint.text();
    address.resize(address.rfind(':'));
    if (address.starts_with('[')) address = address.substr(1, address.size() - 2);
    return address;
}

}  // namespace

const StreamExportFormat HARExporter::format{
    .name = "har",
    .description = "requests and replies as an HTTP archive (HAR 1.2), which browsers' developer tools open",
    .fileExtension = "har",
    .mediaType = "application/json",
    .create = []() -> std::unique_ptr<StreamExporter> { return std::make_unique<HARExporter>(); },
};

void HARExporter::write(std::string_view text_)
{
    if (!isStopped_ && !(*write_)(DataView(text_))) isStopped_ = true;
}

void HARExporter::begin(const Write& writeBytes)
{
    write_ = &writeBytes;
    const JSON creator = {{"name", "Sealscope"}, {"version", plugInBundle().infoString("CFBundleShortVersionString").value_or("0")}};
    write("{\"log\":{\"version\":\"1.2\",\"creator\":" + text(creator) + ",\"pages\":[],\"entries\":[");
}

void HARExporter::end(const Write& writeBytes)
{
    write_ = &writeBytes;
    write("\n]}}\n");
}

void HARExporter::add(const ExportedStream& stream, const Write& writeBytes)
{
    write_ = &writeBytes;
    const auto& messages = stream.interpretation.messages;
    const auto at = [&](std::int64_t index) -> const StreamMessage* {
        return index >= 0 && index < std::ssize(messages) ? &messages[static_cast<std::size_t>(index)] : nullptr;
    };
    std::vector<const StreamMessage*> webSocket;
    for (const StreamMessage& message : messages)
        if (message.attribute("websocketOpcode")) webSocket.push_back(&message);

    std::vector<bool> isPaired(messages.size());
    for (const Pairing& pairing : stream.interpretation.pairings.value_or(std::vector<Pairing>{})) {
        const StreamMessage* const request = at(pairing.requestIndex);
        const StreamMessage* const reply = pairing.replyIndex ? at(*pairing.replyIndex) : nullptr;
        if (reply) isPaired[static_cast<std::size_t>(*pairing.replyIndex)] = true;
        if (!request || !request->attribute("method")) continue;  // a handshake's
        std::vector<const StreamMessage*> own;
        const bool isUpgrade =
            reply && (HTTPMessages::number(*reply, "status") == 101 || HTTPMessages::text(*request, "method") == "CONNECT");
        if (isUpgrade)
            std::ranges::copy_if(webSocket, std::back_inserter(own), [&](const StreamMessage* message) {
                return HTTPMessages::number(*message, "streamId") == HTTPMessages::number(*request, "streamId");
            });
        writeEntry(stream, request, reply, own);
        if (isStopped_) return;
    }
    for (std::size_t i = 0; i < messages.size() && !isStopped_; ++i)
        if (messages[i].kind == StreamMessageKind::reply && !isPaired[i] && messages[i].attribute("status"))
            writeEntry(stream, nullptr, &messages[i], {});
}

void HARExporter::writeEntry(const ExportedStream& stream, const StreamMessage* request, const StreamMessage* reply,
                             const std::vector<const StreamMessage*>& webSocketMessages)
{
    const StreamMessage& first = request ? *request : *reply;
    const double start = first.timestamp, sent = request ? endOf(*request) : start;
    const double send = milliseconds(sent - start), wait = reply ? milliseconds(reply->timestamp - sent) : 0;
    const double receive = reply ? milliseconds(endOf(*reply) - reply->timestamp) : 0;
    write(std::exchange(hasEntries_, true) ? ",\n{" : "\n{");
    write("\"startedDateTime\":" + text(HARValues::dateText(start)) + ",\"time\":" + text(send + wait + receive) + ",\"request\":");
    writeRequest(request);
    write(",\"response\":");
    writeReply(reply);
    const JSON timings = {{"blocked", -1}, {"dns", -1}, {"connect", -1}, {"ssl", -1}, {"send", send}, {"wait", wait}, {"receive", receive}};
    write(",\"cache\":{},\"timings\":" + text(timings));
    // Of a push the server is the asker all the same.
    write(",\"serverIPAddress\":" + text(addressOf(stream.stream.serverEndpoint)) +
          ",\"connection\":" + text(std::to_string(stream.stream.key.number)));
    if (!request || !reply) write(std::string(",\"comment\":\"the capture lacks the ") + (request ? "reply\"" : "request\""));
    if (!webSocketMessages.empty()) {
        write(",\"_webSocketMessages\":[");
        for (const StreamMessage* message : webSocketMessages) {
            const JSON head = {{"type", message->direction == first.direction ? "send" : "receive"},
                               {"time", message->timestamp},
                               {"opcode", HTTPMessages::number(*message, "websocketOpcode")}};
            std::string object = text(head);
            object.pop_back();
            write((message == webSocketMessages.front() ? "" : ",") + object + ",\"data\":\"");
            if (message->body) {
                writeBody(*message->body, HTTPMessages::number(*message, "websocketOpcode") == 1 ? Form::utf8 : Form::base64);
            }
            write("\"}");
        }
        write("]");
    }
    write("}");
}

std::int64_t HARExporter::writeText(const StreamMessage& message, std::string_view encodingKey)
{
    const bool isWords = isText(message);
    const Form form = !isWords ? Form::base64 : message.bodyHint->encoding == TextEncoding::latin1 ? Form::latin1 : Form::utf8;
    write("\"text\":\"");
    const auto [length, ending] = writeBody(*message.body, form);
    write("\"");
    if (!isWords) write(",\"" + std::string(encodingKey) + "\":\"base64\"");
    if (!ending.isComplete) write(",\"comment\":" + text(ending.reason));
    return length;
}

std::pair<std::int64_t, StreamBody::Ending> HARExporter::writeBody(const StreamBody& body, Form form)
{
    std::int64_t length = 0;
    std::vector<std::uint8_t> held;
    const auto put = [&](DataView bytes) {
        write(form == Form::base64 ? base64(bytes) : escaped(form == Form::latin1 ? latin1(bytes) : utf8::repaired(bytes)));
    };
    const auto ending = body.forEachPiece([&](DataView piece) {
        length += piece.size();
        while (!piece.isEmpty() && !isStopped_) {
            const DataView part = piece.sub(0, pieceSize - std::ssize(held));
            held.insert(held.end(), part.begin(), part.end());
            piece = piece.from(part.size());
            if (std::ssize(held) < pieceSize) break;
            const std::int64_t kept = form == Form::utf8 ? cutScalar(held) : 0;
            put(DataView(held).sub(0, std::ssize(held) - kept));
            held.erase(held.begin(), held.end() - kept);
        }
        return !isStopped_;
    });
    put(held);
    return {length, ending};
}

void HARExporter::writeRequest(const StreamMessage* request)
{
    const HeaderFields fields = request ? HARValues::headerFields(*request) : HeaderFields();
    const std::string url(request ? HTTPMessages::text(*request, "url") : "about:blank");
    const JSON head = {{"method", request ? HTTPMessages::text(*request, "method") : "UNKNOWN"},
                       {"url", url},
                       {"httpVersion", request ? httpVersion(*request) : ""},
                       {"cookies", HARValues::requestCookies(fields)},
                       {"headers", HARValues::headers(fields)},
                       {"queryString", HARValues::parameters(HARValues::queryOf(url))},
                       {"headersSize", -1},
                       {"bodySize", request ? HTTPMessages::number(*request, "encodedBytes") : -1}};
    std::string object = text(head);
    object.pop_back();
    write(object);
    if (request && request->body) {
        const std::string_view type = HTTPMessages::text(*request, "contentType");
        write(",\"postData\":{\"mimeType\":" + text(type) + ",\"params\":");
        constexpr std::int64_t longestForm = 1 << 20;
        const bool isForm = HeaderField::mediaType(type) == "application/x-www-form-urlencoded" && request->body->length() <= longestForm;
        write(text(isForm ? HARValues::parameters(request->body->bytes().view().text()) : JSON::array()));
        write(",");
        writeText(*request, "_encoding");
        write("}");
    }
    write("}");
}

void HARExporter::writeReply(const StreamMessage* reply)
{
    const HeaderFields fields = reply ? HARValues::headerFields(*reply) : HeaderFields();
    const std::string* const location = HeaderField::find(fields, "location");
    const std::int64_t carried = reply ? HTTPMessages::number(*reply, "encodedBytes") : -1;
    const JSON head = {{"status", reply ? HTTPMessages::number(*reply, "status") : 0},
                       {"statusText", reply ? HTTPMessages::text(*reply, "statusText") : ""},
                       {"httpVersion", reply ? httpVersion(*reply) : ""},
                       {"cookies", HARValues::replyCookies(fields)},
                       {"headers", HARValues::headers(fields)},
                       {"redirectURL", location ? *location : ""},
                       {"headersSize", -1},
                       {"bodySize", carried}};
    std::string object = text(head);
    object.pop_back();
    const std::string_view type = reply ? HTTPMessages::text(*reply, "contentType") : "";
    write(object + ",\"content\":{\"mimeType\":" + text(type.empty() ? "x-unknown" : type));
    std::int64_t length = 0;
    if (reply && reply->body) {
        write(",");
        length = writeText(*reply, "encoding");
    }
    write(",\"size\":" + std::to_string(length));
    if (length > carried && carried > 0) write(",\"compression\":" + std::to_string(length - carried));
    write("}}");
}

}  // namespace sealscope
