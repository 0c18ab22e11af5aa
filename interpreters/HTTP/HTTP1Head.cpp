// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Head.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <limits>

namespace sealscope {

namespace {

namespace http = boost::beast::http;
using boost::beast::string_view;

std::string_view view(string_view text) { return {text.data(), text.size()}; }

/// The library's parser, which keeps what it is told. Bodies are none of its business here: they are stepped over.
template <bool isRequest> class HeadParser final : public http::basic_parser<isRequest> {
public:
    explicit HeadParser(HTTP1Head& head) : head_(head)
    {
        this->header_limit(std::numeric_limits<std::uint32_t>::max());  // whoever cut the head saw to its size
        this->body_limit(std::numeric_limits<std::uint64_t>::max());
    }

private:
    using error_code = boost::beast::error_code;

    void on_request_impl(http::verb, string_view method, string_view target, int version, error_code&) override
    {
        head_.method = HeaderField::text(view(method));
        head_.target = HeaderField::text(view(target));
        head_.minorVersion = version % 10;
    }
    void on_response_impl(int status, string_view reason, int version, error_code&) override
    {
        head_.status = status;
        head_.reason = HeaderField::text(view(reason));
        head_.minorVersion = version % 10;
    }
    void on_field_impl(http::field, string_view name, string_view value, error_code& error) override
    {
        // The lines are counted where the head is taken as it stands.
        if (head_.fields.size() == HTTP1Head::mostFields)
            error = http::error::header_limit;
        else
            head_.fields.push_back({HeaderField::text(view(name)), HeaderField::text(view(value))});
    }
    void on_header_impl(error_code&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
    std::size_t on_body_impl(string_view body, error_code&) override { return body.size(); }
    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code&) override { return body.size(); }
    void on_finish_impl(error_code&) override {}

    HTTP1Head& head_;
};

/// Reads a head; false where the standard's grammar refuses it, or where it has no end.
template <bool isRequest> bool parseStrictly(HTTP1Head& head, DataView bytes)
{
    HeadParser<isRequest> parser(head);
    boost::beast::error_code error;
    parser.put(boost::asio::const_buffer(bytes.data(), static_cast<std::size_t>(bytes.size())), error);
    if (parser.is_header_done() && (!error || error == http::error::need_more)) return true;
    if (error != http::error::need_more) head.problem = error.message();
    return false;
}

/// Cuts the next line off a text, without its end.
std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

/// " HTTP/1.x" at a request line's end; its position, or npos.
std::size_t versionOf(std::string_view line)
{
    static constexpr std::string_view version = " HTTP/1.";
    if (line.size() < version.size() + 1 || !isDigit(line.back())) return std::string_view::npos;
    const std::size_t at = line.size() - version.size() - 1;
    return line.substr(at, version.size()) == version ? at : std::string_view::npos;
}

void readStartLine(HTTP1Head& head, std::string_view line)
{
    const std::size_t space = std::min(line.find(' '), line.size());
    const std::string_view first = line.substr(0, space), rest = line.substr(std::min(space + 1, line.size()));
    if (head.kind == HTTP1Head::Kind::reply) {
        if (first.size() == 8 && isDigit(first[7])) head.minorVersion = first[7] - '0';
        head.status = 0;
        for (std::size_t i = 0; i < 3 && i < rest.size() && isDigit(rest[i]); ++i) head.status = head.status * 10 + (rest[i] - '0');
        head.reason = HeaderField::text(HeaderField::trimmed(rest.substr(std::min<std::size_t>(3, rest.size()))));
        return;
    }
    head.method = HeaderField::text(first);
    const std::size_t version = versionOf(line);
    if (version != std::string_view::npos) head.minorVersion = line.back() - '0';
    const std::size_t end = version == std::string_view::npos || version < space + 1 ? line.size() : version;
    head.target = HeaderField::text(line.substr(std::min(space + 1, line.size()), end - std::min(space + 1, end)));
}

}  // namespace

HeaderFields HTTP1Head::fieldLines(std::string_view text)
{
    HeaderFields fields;
    std::size_t further = 0;
    while (!text.empty()) {
        const std::string_view line = takeLine(text);
        if (line.empty()) continue;
        if (fields.size() == mostFields) {
            ++further;
            continue;
        }
        // A line that begins with white space goes on where the one before ended (RFC 9112 §5.2).
        if ((line[0] == ' ' || line[0] == '\t') && !fields.empty()) {
            fields.back().value += ' ' + HeaderField::text(HeaderField::trimmed(line));
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            fields.push_back({"Header line without a name", HeaderField::text(line)});
        else
            fields.push_back({HeaderField::text(HeaderField::trimmed(line.substr(0, colon))),
                              HeaderField::text(HeaderField::trimmed(line.substr(colon + 1)))});
    }
    if (further > 0) fields.push_back({"Further header lines", std::to_string(further)});
    return fields;
}

HTTP1Head HTTP1Head::parse(DataView bytes, Kind kind)
{
    HTTP1Head head{.kind = kind};
    if (kind == Kind::request ? parseStrictly<true>(head, bytes) : parseStrictly<false>(head, bytes)) return head;
    std::string_view text = bytes.text();
    if (const std::size_t feed = text.find('\n'); feed != std::string_view::npos && !text.substr(0, feed).ends_with('\r'))
        head.problem = "lines end in a line feed alone";
    readStartLine(head, takeLine(text));
    head.fields = fieldLines(text);
    return head;
}

bool HTTP1Head::beginsStartLine(std::string_view text, Kind kind)
{
    static constexpr std::string_view version = "HTTP/1.";
    if (text.find('\n') != std::string_view::npos) return false;
    if (kind == Kind::reply) return text.starts_with(version);
    const std::size_t space = text.substr(0, longestMethod + 1).find(' ');
    return space != std::string_view::npos && HeaderField::isToken(text.substr(0, space)) && text.substr(space + 1).starts_with('/');
}

bool HTTP1Head::isStartLine(std::string_view line, Kind kind)
{
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (kind == Kind::reply) {
        // HTTP/1.1 200 OK, the reason perhaps missing with the space before it (RFC 9112 §4)
        return line.size() >= 12 && line.starts_with("HTTP/1.") && isDigit(line[7]) && line[8] == ' ' && line[9] >= '1' && line[9] <= '9' &&
               isDigit(line[10]) && isDigit(line[11]) && (line.size() == 12 || line[12] == ' ');
    }
    const std::size_t space = line.substr(0, longestMethod + 1).find(' ');
    const std::size_t version = versionOf(line);
    if (space == std::string_view::npos || version == std::string_view::npos || version <= space + 1) return false;
    const std::string_view target = line.substr(space + 1, version - space - 1);
    return HeaderField::isToken(line.substr(0, space)) &&
           std::ranges::none_of(target, [](char letter) { return letter >= 0 && letter <= ' '; });
}

}  // namespace sealscope
