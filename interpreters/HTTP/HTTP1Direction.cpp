// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Direction.h"

#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <limits>
#include <ranges>
#include <utility>

namespace sealscope {

namespace {

// Longer heads than any server takes; what is longer is shown up to here.
constexpr std::int64_t longestHead = 1 << 20;
constexpr std::int64_t usualHead = 16'384;
constexpr std::int64_t longestStartLine = 65'536;
constexpr std::int64_t longestChunkLine = 16'384;
constexpr std::int64_t longestTrailers = 65'536;
// A direction of many thousand damaged pieces shows the first of them.
constexpr std::size_t mostOthers = 1'000;

std::optional<std::int64_t> decimal(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || text[0] == '-' || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

/// The number that a chunk's line begins with, extensions behind it (RFC 9112 §7.1).
std::optional<std::int64_t> chunkSize(std::string_view line)
{
    std::uint64_t size = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), size, 16);
    if (error != std::errc() || size > std::numeric_limits<std::int64_t>::max() / 2) return std::nullopt;
    const std::string_view rest = HeaderField::trimmed({end, line.data() + line.size()});
    if (!rest.empty() && rest[0] != ';') return std::nullopt;
    return static_cast<std::int64_t>(size);
}

}  // namespace

HTTP1Direction::HTTP1Direction(const TCPStream& stream, TCPSegment::Direction direction, HTTP1Head::Kind kind, const StreamContext& context)
    : stream_(stream), data_(stream.data(direction)), context_(context), direction_(direction), kind_(kind), lost_(stream, direction),
      window_(data_)
{}

void HTTP1Direction::goOn(StreamExtent extent)
{
    isGrowing_ = extent == StreamExtent::growing;
    lost_ = LostBytes(stream_, direction_);
}

bool HTTP1Direction::isStartAt(std::int64_t offset) const
{
    return HTTP1Head::isStartLine(window_.line(offset, longestStartLine).text(), kind_);
}

bool HTTP1Direction::isCutStartAt(std::int64_t offset) const
{
    if (data_.size() - offset > longestStartLine) return false;
    const DataView rest = window_.bytes(offset, longestStartLine);
    return HTTP1Head::beginsStartLine(rest.text(), kind_);
}

std::int64_t HTTP1Direction::nextStart(std::int64_t from)
{
    const auto found = window_.findLine({from, data_.size()}, [&](std::string_view line) { return HTTP1Head::isStartLine(line, kind_); });
    return found.value_or(data_.size());
}

void HTTP1Direction::skip(std::int64_t to, std::string_view what)
{
    hasGap_ = true;
    const ByteRange range{std::exchange(offset_, to), to};
    if (range.isEmpty() || ++otherCount_ > mostOthers) return;
    StreamMessage shown{
        .direction = direction_, .kind = StreamMessageKind::data, .summary = fmt::format("{} {}", byteCountText(range.size()), what)};
    shown.bodyHint = StreamBodyHint::binary();
    shown.body = StreamBody(std::make_shared<const MessageBody>(stream_, direction_, CarriedBody{.ranges = range}, context_));
    shown.attributes = {{"encodedBytes", range.size()}};
    HTTPMessages::locate(shown, stream_, range, {});
    others_.push_back(std::move(shown));
}

std::optional<HTTP1Message> HTTP1Direction::next(const HTTPMessage* request)
{
    if (open_) return endMessage();
    while (offset_ < data_.size()) {
        // Empty lines before a message mean nothing (RFC 9112 §2.2).
        while (offset_ < data_.size() && (window_.bytes(offset_, 1).u8(0) == '\r' || window_.bytes(offset_, 1).u8(0) == '\n')) ++offset_;
        if (offset_ == data_.size()) break;
        if (isGrowing_ && data_.size() - offset_ < longestStartLine && window_.line(offset_, longestStartLine).isEmpty()) break;

        if (!isStartAt(offset_) && !isCutStartAt(offset_)) {
            skip(nextStart(offset_), kind_ == HTTP1Head::Kind::request ? "outside of any request" : "outside of any reply");
            continue;
        }

        // Most heads are short. Of another it is worth knowing where bytes were lost before all of it is gathered.
        const std::int64_t left = data_.size() - offset_;
        DataView head = window_.lines(offset_, usualHead);
        auto lost = lost_.firstIn({offset_, offset_ + (head.isEmpty() ? std::min(left, longestHead) : head.size())});
        if (head.isEmpty()) head = window_.lines(offset_, lost ? lost->lower - offset_ : longestHead);
        if (isGrowing_ && head.isEmpty() && !lost && left < longestHead) break;
        if (!head.isEmpty() && (!lost || lost->lower >= offset_ + head.size())) {
            beginMessage(head, request);
            return endMessage();
        }

        // What there is of the head is shown; its body, if it has one, is told from the next message by that one's start line.
        const std::int64_t end = lost ? lost->lower : offset_ + std::min(left, longestHead);
        beginMessage(window_.bytes(offset_, end - offset_), request);
        HTTP1Message read = *std::exchange(open_, std::nullopt);
        read.message.notes.push_back({"Header incomplete", lost ? fmt::format("the capture lacks {} of it", byteCountText(lost->size()))
                                                           : left > longestHead ? "it is longer than " + byteCountText(longestHead)
                                                                                : "the capture ends in it"});
        read.message.range.upper = end;
        read.message.body = {};
        offset_ = end;
        if (end < data_.size()) skip(nextStart(lost ? lost->upper : end), "behind an incomplete header");
        return read;
    }
    return std::nullopt;
}

std::string HTTP1Direction::urlOf(const HTTP1Head& head) const
{
    // The target may be absolute, as proxies are asked (RFC 9112 §3.2.2).
    if (const std::size_t scheme = head.target.find("://"); scheme != std::string::npos && head.target.find_first_of("/?#") == scheme + 1)
        return head.target;
    std::string url = context_.isDecrypted ? "https://" : "http://";
    if (head.method == "CONNECT") return url + head.target;
    const std::string* const host = HeaderField::find(head.fields, "host");
    if (host && !host->empty())
        url += *host;
    else
        url += context_.serverName.value_or(stream_.serverEndpoint.text());
    if (!head.target.starts_with('/') && head.target != "*") url += '/';
    return head.target == "*" ? url : url + head.target;
}

std::int64_t HTTP1Direction::lengthFrom(const HTTPMessage& message, std::vector<DetailRow>& notes) const
{
    std::vector<std::int64_t> lengths;
    for (const std::string_view member : HeaderField::list(message.fields, "content-length")) {
        const auto length = decimal(member);
        if (!length) {
            notes.push_back({"Content length unclear", fmt::format("\"{}\" is no number of bytes", member)});
            return -1;
        }
        if (std::ranges::find(lengths, *length) == lengths.end()) lengths.push_back(*length);
    }
    if (lengths.empty()) return -1;
    if (lengths.size() == 1) return lengths.front();
    // Two readers of this may see two different messages (RFC 9112 §6.3, §11.2). The one behind which a message begins is meant.
    std::int64_t chosen = lengths.front();
    for (const std::int64_t length : lengths | std::views::take(8)) {
        const std::int64_t end = length > data_.size() - offset_ ? -1 : offset_ + length;
        if (end == data_.size() || (end >= 0 && isStartAt(end))) {
            chosen = length;
            break;
        }
    }
    notes.push_back(
        {"Content length unclear", fmt::format("{} different lengths are given; {} was taken", lengths.size(), groupedText(chosen))});
    return chosen;
}

HTTP1Direction::Framing HTTP1Direction::framing(const HTTP1Head& head, HTTPMessage& message, const HTTPMessage* request) const
{
    const bool isReply = kind_ == HTTP1Head::Kind::reply;
    if (isReply && (head.status < 200 || head.status == 204 || head.status == 304 || (request && request->method == "HEAD"))) return {};
    if (isReply && request && request->method == "CONNECT" && head.status < 300) return {};

    const auto transfer = HeaderField::list(message.fields, "transfer-encoding");
    const bool hasLength = HeaderField::find(message.fields, "content-length") != nullptr;
    if (!transfer.empty()) {
        if (hasLength)
            message.notes.push_back(
                {"Content length unclear", "Content-Length stands beside Transfer-Encoding, as in request smuggling; it was ignored"});
        if (head.minorVersion == 0)
            message.notes.push_back({"Content length unclear", "HTTP/1.0 knows no Transfer-Encoding; it was read as in HTTP/1.1"});
        if (HeaderField::isNamed(transfer.back(), "chunked")) return {.kind = Framing::Kind::chunked};
        if (isReply) return {.kind = Framing::Kind::toTheEnd};
        message.notes.push_back(
            {"Content length unclear", "the last Transfer-Encoding is not chunked; the body was read up to the next request"});
        return {.kind = Framing::Kind::toTheNextMessage};
    }
    if (hasLength) {
        const std::int64_t length = lengthFrom(message, message.notes);
        if (length < 0) return {.kind = Framing::Kind::toTheNextMessage};
        return {.kind = Framing::Kind::length, .length = length};
    }
    if (isReply) return {.kind = Framing::Kind::toTheEnd};
    return {};
}

void HTTP1Direction::beginMessage(DataView bytes, const HTTPMessage* request)
{
    const std::int64_t start = offset_;
    HTTP1Head head = HTTP1Head::parse(bytes, kind_);
    offset_ += bytes.size();

    HTTP1Message& read = open_.emplace(HTTP1Message{.time = time(start)});
    HTTPMessage& message = read.message;
    message.direction = direction_;
    message.protocol = head.minorVersion == 0 ? "HTTP/1.0" : "HTTP/1.1";
    message.url = kind_ == HTTP1Head::Kind::request ? urlOf(head) : request ? request->url : std::string();
    message.method = std::move(head.method);
    message.status = head.status;
    message.reason = std::move(head.reason);
    message.fields = std::move(head.fields);
    if (!head.problem.empty()) message.notes.push_back({"Header malformed", head.problem});

    const bool isReply = kind_ == HTTP1Head::Kind::reply;
    message.kind = !isReply                                                        ? StreamMessageKind::request
                   : head.status >= 100 && head.status < 200 && head.status != 101 ? StreamMessageKind::data
                                                                                   : StreamMessageKind::reply;
    const bool isConnect = (isReply ? request && request->method == "CONNECT" : message.method == "CONNECT");
    read.isUpgrade =
        isConnect || (HeaderField::find(message.fields, "upgrade") && HeaderField::listContains(message.fields, "connection", "upgrade"));
    read.isTunnel = isReply && (head.status == 101 || (isConnect && head.status >= 200 && head.status < 300));

    message.range = {start, offset_};
    framing_ = framing(head, message, request);
    framing_.start = offset_;
}

std::optional<HTTP1Message> HTTP1Direction::endMessage()
{
    HTTPMessage& message = open_->message;
    if (!readBody(framing_, message) && isGrowing_) return std::nullopt;
    message.range.upper = offset_;
    HTTPMessages::readCodings(message);
    return std::exchange(open_, std::nullopt);
}

bool HTTP1Direction::readBody(Framing& framing, HTTPMessage& message)
{
    const std::int64_t left = data_.size() - offset_;
    switch (framing.kind) {
    case Framing::Kind::none: break;
    case Framing::Kind::length:
        if (framing.length > left && isGrowing_) return false;
        if (framing.length > left)
            message.body.shortfall =
                fmt::format("{} of its {} bytes are missing", groupedText(framing.length - left), groupedText(framing.length));
        message.body.ranges.append({offset_, offset_ + std::min(framing.length, left)});
        offset_ += std::min(framing.length, left);
        break;
    case Framing::Kind::toTheEnd:
    case Framing::Kind::toTheNextMessage: {
        if (isGrowing_) return false;
        const std::int64_t end = framing.kind == Framing::Kind::toTheEnd ? data_.size() : nextStart(offset_);
        message.body.ranges.append({offset_, end});
        offset_ = end;
        break;
    }
    case Framing::Kind::chunked: return readChunks(framing, message);
    }
    return true;
}

bool HTTP1Direction::readChunks(Framing& framing, HTTPMessage& message)
{
    const auto stop = [&](std::string reason) {
        message.body.shortfall = std::move(reason);
        return true;
    };
    while (!framing.isInTrailers) {
        if (framing.isInChunk) {
            const std::int64_t left = data_.size() - offset_, taken = std::min(framing.chunkLeft, left);
            message.body.ranges.append({offset_, offset_ + taken});
            offset_ += taken;
            framing.chunkLeft -= taken;
            // The end of the chunk's line is read with it.
            if (isGrowing_ && left - taken < 2) return false;
            if (framing.chunkLeft > 0)
                return stop(fmt::format("{} of its last chunk's {} bytes are missing", groupedText(framing.chunkLeft), groupedText(framing.length)));
            if (const DataView end = window_.bytes(offset_, 2); end.u8(0) == '\r' && end.u8(1) == '\n')
                offset_ += 2;
            else if (end.u8(0) == '\n')
                offset_ += 1;
            framing.isInChunk = false;
        }
        const DataView line = window_.line(offset_, longestChunkLine);
        if (isGrowing_ && line.isEmpty() && data_.size() - offset_ < longestChunkLine) return false;
        const auto size = chunkSize(line.text());
        if (line.isEmpty() && data_.size() - offset_ < longestChunkLine && !lost_.firstIn({offset_, data_.size()})) {
            offset_ = data_.size();
            return stop("the capture ends before its last chunk");
        }
        if (!size) {
            const bool isLost = lost_.firstIn({offset_, offset_ + std::max<std::int64_t>(line.size(), 1)}).has_value();
            stop(fmt::format("{} at byte {} of the chunked data, and the chunks behind it cannot be told apart",
                             isLost ? "the capture lacks a chunk's size" : "a chunk's size makes no sense", groupedText(offset_ - framing.start)));
            hasGap_ = true;
            return true;
        }
        offset_ += line.size();
        framing.isInTrailers = *size == 0;
        framing.isInChunk = *size != 0;
        framing.chunkLeft = framing.length = *size;
    }
    // Trailers, and the empty line that ends them and the message (RFC 9112 §7.1.2).
    const DataView lines = window_.lines(offset_, longestTrailers);
    if (lines.isEmpty()) {
        if (isGrowing_ && data_.size() - offset_ < longestTrailers) return false;
        if (offset_ < data_.size()) message.notes.push_back({"Trailers incomplete", "they have no end"});
        offset_ = data_.size() - offset_ < longestTrailers ? data_.size() : offset_;
        return true;
    }
    message.trailers = HTTP1Head::fieldLines(lines.text());
    offset_ += lines.size();
    return true;
}

}  // namespace sealscope
