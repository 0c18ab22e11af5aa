// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTPMessage.h"

#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sealscope {

namespace {

/// More layers than this are nobody's wish.
constexpr std::size_t mostCodings = 4;

/// The path and query of a URL; of "*" or an authority alone, all of it.
std::string_view pathOf(std::string_view url)
{
    const std::size_t authority = url.find("://");
    if (authority == std::string_view::npos) return url;
    const std::size_t path = url.find('/', authority + 3);
    return path == std::string_view::npos ? url.substr(authority + 3) : url.substr(path);
}

/// How many bytes of a body were lost, where it costs little to know: data that are made when they are looked at are not.
std::int64_t lostBytes(const ByteRanges& ranges, const TCPStream& stream, TCPSegment::Direction direction)
{
    const StreamData& data = stream.data(direction);
    if (data.holeBytes() == 0 || !data.lendsForLong()) return 0;
    const LostBytes lost(stream, direction);
    std::int64_t count = 0;
    ranges.forEach([&](ByteRange range) { return count += lost.countIn(range), true; });
    return count;
}

}  // namespace

std::string_view HTTPMessages::text(const StreamMessage& message, std::string_view key)
{
    const VELValue* const value = message.attribute(key);
    const auto* const text = value ? std::get_if<std::string>(value) : nullptr;
    return text ? std::string_view(*text) : std::string_view();
}

std::int64_t HTTPMessages::number(const StreamMessage& message, std::string_view key)
{
    const VELValue* const value = message.attribute(key);
    const auto* const number = value ? std::get_if<std::int64_t>(value) : nullptr;
    return number ? *number : 0;
}

void HTTPMessages::readCodings(HTTPMessage& message)
{
    if (message.body.ranges.isEmpty()) return;
    std::vector<ContentCoding> codings;
    const auto read = [&](std::string_view name) {
        for (const std::string_view member : HeaderField::list(message.fields, name)) {
            if (HeaderField::isNamed(member, "identity") || (name == "transfer-encoding" && HeaderField::isNamed(member, "chunked")))
                continue;
            const auto coding = contentCodingNamed(member);
            if (coding && codings.size() < mostCodings) {
                codings.push_back(*coding);
                continue;
            }
            message.notes.push_back({"Body not decoded", coding ? "more than 4 content codings on top of each other"
                                                                : "the coding " + std::string(member) + " is not known"});
            codings.clear();
            return false;
        }
        return true;
    };
    if (read("content-encoding") && read("transfer-encoding")) message.body.codings = std::move(codings);
}

void HTTPMessages::locate(StreamMessage& shown, const TCPStream& stream, ByteRange range, const ByteRanges& pieces)
{
    // A frame may announce more than the data hold.
    range.upper = std::min(range.upper, stream.data(shown.direction).size());
    range.lower = std::min(range.lower, range.upper);
    shown.byteRange = range;
    ByteLocation place;
    if (pieces.isInOnePlace()) {
        place = stream.locate(range, shown.direction);
    } else {
        PacketIdCollector packets(place.packetIds);
        pieces.forEach([&](ByteRange piece) {
            const ByteLocation part = stream.locate(piece, shown.direction);
            for (const std::int64_t packetId : part.packetIds) packets.add(packetId);
            if (part.timestamp) place.timestamp = std::min(place.timestamp.value_or(*part.timestamp), *part.timestamp);
            return true;
        });
    }
    shown.packetIds = std::move(place.packetIds);
    shown.timestamp = place.timestamp.value_or(0);
    shown.endTimestamp.reset();
    if (shown.packetIds.size() < 2) return;
    const auto end = stream.locate({range.upper - 1, range.upper}, shown.direction).timestamp;
    if (end && *end > shown.timestamp) shown.endTimestamp = end;
}

void HTTPMessages::appendBodyText(std::string& summary, const StreamMessage& reply)
{
    const std::string_view type = HeaderField::mediaType(text(reply, "contentType"));
    summary += type;
    const std::int64_t bytes = number(reply, "encodedBytes");
    if (bytes <= 0 && !type.empty()) return;
    if (!type.empty()) summary += ", ";
    summary += bytes > 0 ? byteCountText(bytes) : "no body";
    // What it decodes to is known once somebody has decoded it.
    if (const std::string_view coding = text(reply, "contentEncoding"); !coding.empty()) summary.append(1, ' ').append(coding);
}

StreamMessage HTTPMessages::shown(HTTPMessage message, const TCPStream& stream, const StreamContext& context)
{
    StreamMessage shown;
    show(std::move(message), stream, context, shown);
    return shown;
}

void HTTPMessages::show(HTTPMessage&& message, const TCPStream& stream, const StreamContext& context, StreamMessage& shown)
{
    shown.id = UUID::random();
    shown.direction = message.direction;
    shown.kind = message.kind;
    shown.isDecrypted = false;
    shown.tellCarried = nullptr;
    const bool isRequest = message.kind == StreamMessageKind::request;
    const std::string* const contentType = HeaderField::find(message.fields, "content-type");
    const bool hasBody = !message.body.ranges.isEmpty();

    if (hasBody)
        shown.filename = HeaderField::suggestedName(message.fields, message.url);
    else
        shown.filename.reset();
    shown.summary.clear();
    if (isRequest) {
        shown.summary.reserve(message.method.size() + 1 + message.url.size());
        shown.summary.append(message.method).append(1, ' ').append(message.url);
    }
    shown.attributes.clear();
    // Of a connection with many small requests these rows are most of the memory: no more room than they need.
    shown.attributes.reserve(message.attributes.size() + (message.streamId ? 1 : 0) + (isRequest ? 4 : 3) + (contentType ? 1 : 0) +
                             (message.reason.empty() ? 0 : 1) + (message.body.codings.empty() ? 0 : 1));
    if (message.streamId) shown.attributes.emplace_back("streamId", *message.streamId);
    std::ranges::move(message.attributes, std::back_inserter(shown.attributes));
    if (isRequest) {
        shown.attributes.emplace_back("method", std::move(message.method));
        shown.attributes.emplace_back("url", std::move(message.url));
    } else {
        shown.attributes.emplace_back("status", std::int64_t{message.status});
        if (!message.reason.empty()) shown.attributes.emplace_back("statusText", message.reason);
    }
    shown.attributes.emplace_back("protocol", std::string(message.protocol));
    if (contentType) shown.attributes.emplace_back("contentType", *contentType);
    shown.attributes.emplace_back("encodedBytes", message.body.ranges.size());
    if (!message.body.codings.empty())
        if (const std::string* const coding = HeaderField::find(message.fields, "content-encoding"))
            shown.attributes.emplace_back("contentEncoding", *coding);

    if (!isRequest) {
        shown.summary.reserve(48);
        shown.summary += std::to_string(message.status);
        if (message.kind == StreamMessageKind::data && !message.reason.empty()) shown.summary.append(1, ' ').append(message.reason);
        if (message.kind == StreamMessageKind::reply) {
            shown.summary += " (";
            appendBodyText(shown.summary, shown);
            shown.summary += ')';
        }
    }

    if (hasBody) {
        shown.bodyHint = contentType ? HeaderField::bodyHint(*contentType) : StreamBodyHint::binary();
        std::string why = message.body.shortfall;
        if (const std::int64_t lost = lostBytes(message.body.ranges, stream, message.direction); lost > 0)
            why.append(why.empty() ? "" : "; ").append("the capture lacks ").append(byteCountText(lost)).append(" of it, shown as zeros");
        if (!why.empty()) message.notes.push_back({"Body incomplete", std::move(why)});
        shown.body = StreamBody(std::make_shared<const MessageBody>(stream, message.direction, std::move(message.body), context));
    } else {
        shown.bodyHint.reset();
        shown.body.reset();
    }
    if (message.packet) {
        shown.byteRange = message.range;
        shown.packetIds.assign(1, message.packet->id);
        shown.timestamp = message.packet->time;
        shown.endTimestamp.reset();
    } else {
        locate(shown, stream, message.range, message.pieces);
    }

    shown.detail = std::move(message.fields);
    for (DetailRow& trailer : message.trailers) shown.detail.push_back({std::move(trailer.name) + " (trailer)", std::move(trailer.value)});
    std::ranges::move(message.notes, std::back_inserter(shown.detail));
}

std::string HTTPMessages::pairingSummary(const StreamMessage& request, const StreamMessage* reply)
{
    std::string summary(text(request, "method"));
    summary.append(1, ' ').append(pathOf(text(request, "url")));
    if (!reply) return summary;
    summary.append(" → ").append(std::to_string(number(*reply, "status"))).append(" (");
    appendBodyText(summary, *reply);
    if (reply->attribute("grpcStatus")) {
        const std::string_view words = text(*reply, "grpcMessage");
        summary.append(", gRPC status ").append(std::to_string(number(*reply, "grpcStatus")));
        if (!words.empty()) summary.append(1, ' ').append(words.substr(0, 200));
    }
    if (request.timestamp > 0 && reply->timestamp > 0) {
        summary.append(", ").append(durationText(reply->endTimestamp.value_or(reply->timestamp) - request.timestamp));
    }
    summary += ')';
    return summary;
}

}  // namespace sealscope
