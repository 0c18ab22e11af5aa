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
// As many bytes of streams let one more WebSocket message be written.
constexpr std::int64_t bytesForOneMessage = 64;

std::string text(const JSON& value) { return HARValues::text(value); }
std::string quotedText(std::string_view value) { return HARValues::quoted(value); }

/// A text as it stands between a JSON string's quotes.
std::string escaped(std::string_view text_)
{
    std::string whole = quotedText(text_);
    return whole.substr(1, whole.size() - 2);
}

std::string latin1(DataView bytes)
{
    std::string text_;
    for (const std::uint8_t byte : bytes) utf8::append(text_, byte);
    return text_;
}

/// Bytes that a text takes in JSON.
std::int64_t escapedSize(DataView bytes)
{
    std::int64_t size = bytes.size();
    for (const std::uint8_t byte : bytes)
        size += byte == '"' || byte == '\\' || (byte >= 0x08 && byte <= 0x0D && byte != 0x0B) ? 1 : byte < 0x20 ? 5 : 0;
    return size;
}

bool isText(const StreamMessage& message)
{
    if (!message.bodyHint || message.bodyHint->form != StreamBodyHint::Form::text) return false;
    const bool isLatin1 = message.bodyHint->encoding == TextEncoding::latin1;
    std::vector<std::uint8_t> first;
    std::int64_t bytes = 0, escapedBytes = 0;
    const auto isMostlyControls = [&] { return escapedBytes > 2 * bytes; };
    message.body->forEachPiece([&](DataView piece) {
        const DataView part = piece.sub(0, sniffed - std::ssize(first));
        if (!isLatin1) first.insert(first.end(), part.begin(), part.end());
        bytes += piece.size();
        escapedBytes += escapedSize(piece);
        return bytes < sniffed || !isMostlyControls();
    });
    return !isMostlyControls() && utf8::isWellFormed(DataView(first).sub(0, std::ssize(first) - utf8::cutScalar(first)));
}

double milliseconds(double seconds) { return std::max(0.0, std::round(seconds * 1e6) / 1e3); }

double endOf(const StreamMessage& message) { return message.endTimestamp.value_or(message.timestamp); }

/// The version as HAR has it: a call of gRPC goes over HTTP/2.
std::string httpVersion(const StreamMessage& message)
{
    const std::string_view protocol = HTTPMessages::text(message, "protocol");
    return std::string(protocol == "gRPC" ? "HTTP/2" : protocol);
}

/// What packets carried of a stream.
std::int64_t capturedBytes(const TCPStream& stream)
{
    std::int64_t bytes = 0;
    for (const StreamData* const data : {&stream.clientToServerData, &stream.serverToClientData}) bytes += data->size() - data->holeBytes();
    return bytes;
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
    .wantsExchangesAlone = true,
};

void HARExporter::write(std::string_view text_)
{
    written_ += std::ssize(text_);
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
    if (!stream.isContinued) socketMessages_ += capturedBytes(stream.stream) / bytesForOneMessage;
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
    write("\"startedDateTime\":" + quotedText(HARValues::dateText(start)) + ",\"time\":" + text(send + wait + receive) + ",\"request\":");
    writeRequest(request);
    write(",\"response\":");
    writeReply(reply);
    write(",\"cache\":{},\"timings\":{\"blocked\":-1,\"dns\":-1,\"connect\":-1,\"ssl\":-1,\"send\":" + text(send) +
          ",\"wait\":" + text(wait) + ",\"receive\":" + text(receive) + "}");
    // Of a push the server is the asker all the same.
    write(",\"serverIPAddress\":" + quotedText(addressOf(stream.stream.serverEndpoint)) + ",\"connection\":\"" +
          std::to_string(stream.stream.key.number) + '"');
    if (!request || !reply) write(std::string(",\"comment\":\"the capture lacks the ") + (request ? "reply\"" : "request\""));
    // A message of two bytes is written as dozens, and takes a microsecond.
    const std::int64_t most = (64 << 20) + 2 * capturedBytes(stream.stream);
    const std::int64_t end = written_ + most;
    bool hasWebSocket = false;
    bool isCut = false;
    const auto writeOne = [&](const StreamMessage& message) {
        isCut = written_ > end || socketMessages_ == 0;
        if (isCut) return;
        --socketMessages_;
        write(std::exchange(hasWebSocket, true) ? "," : ",\"_webSocketMessages\":[");
        writeWebSocketMessage(message, first.direction);
    };
    for (const StreamMessage* message : webSocketMessages)
        if (!isCut) writeOne(*message);
    if (reply && reply->tellCarried) {
        reply->tellCarried([&](StreamPart& part) {
            for (const StreamMessage& message : part.messages)
                if (message.attribute("websocketOpcode") && !isCut) writeOne(message);
            return !isStopped_ && !isCut;
        });
    }
    if (hasWebSocket) write("]");
    if (isCut) write(",\"comment\":\"further WebSocket messages are left out\"");
    write("}");
}

void HARExporter::writeWebSocketMessage(const StreamMessage& message, TCPSegment::Direction asking)
{
    const std::int64_t opcode = HTTPMessages::number(message, "websocketOpcode");
    const JSON head = {{"type", message.direction == asking ? "send" : "receive"}, {"time", message.timestamp}, {"opcode", opcode}};
    std::string object = text(head);
    object.pop_back();
    write(object + ",\"data\":\"");
    if (message.body) writeBody(*message.body, opcode == 1 ? Form::utf8 : Form::base64);
    write("\"}");
}

std::int64_t HARExporter::writeText(const StreamMessage& message, std::string_view encodingKey)
{
    const bool isWords = isText(message);
    const Form form = !isWords ? Form::base64 : message.bodyHint->encoding == TextEncoding::latin1 ? Form::latin1 : Form::utf8;
    write("\"text\":\"");
    const auto [length, ending] = writeBody(*message.body, form);
    write("\"");
    if (!isWords) write(",\"" + std::string(encodingKey) + "\":\"base64\"");
    if (!ending.isComplete) write(",\"comment\":" + quotedText(ending.reason));
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
            const std::int64_t kept = form == Form::utf8 ? utf8::cutScalar(held) : 0;
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
    std::string head = "{\"method\":" + quotedText(request ? HTTPMessages::text(*request, "method") : "UNKNOWN");
    head.append(",\"url\":").append(quotedText(url));
    head.append(",\"httpVersion\":").append(quotedText(request ? httpVersion(*request) : ""));
    head.append(",\"cookies\":").append(text(HARValues::requestCookies(fields)));
    head.append(",\"headers\":").append(HARValues::headers(fields));
    head.append(",\"queryString\":").append(text(HARValues::parameters(HARValues::queryOf(url))));
    head.append(",\"headersSize\":-1,\"bodySize\":");
    head.append(std::to_string(request ? HTTPMessages::number(*request, "encodedBytes") : -1));
    write(head);
    if (request && request->body) {
        const std::string_view type = HTTPMessages::text(*request, "contentType");
        write(",\"postData\":{\"mimeType\":" + quotedText(type) + ",\"params\":");
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
    std::string head = "{\"status\":" + std::to_string(reply ? HTTPMessages::number(*reply, "status") : 0);
    head.append(",\"statusText\":").append(quotedText(reply ? HTTPMessages::text(*reply, "statusText") : ""));
    head.append(",\"httpVersion\":").append(quotedText(reply ? httpVersion(*reply) : ""));
    head.append(",\"cookies\":").append(text(HARValues::replyCookies(fields)));
    head.append(",\"headers\":").append(HARValues::headers(fields));
    head.append(",\"redirectURL\":").append(quotedText(location ? *location : ""));
    head.append(",\"headersSize\":-1,\"bodySize\":").append(std::to_string(carried));
    const std::string_view type = reply ? HTTPMessages::text(*reply, "contentType") : "";
    head.append(",\"content\":{\"mimeType\":").append(quotedText(type.empty() ? "x-unknown" : type));
    write(head);
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
