// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/ProtobufFields.h"

#include "interpreters/HTTP/MessageText.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>
#include <string>

namespace sealscope {

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

constexpr std::size_t mostRows = 200;
constexpr int deepest = 8;
constexpr int deepestGroup = 100;
constexpr std::size_t longestText = 1'000;

bool isText(std::string_view bytes)
{
    const bool isPrintable = std::ranges::none_of(
        bytes, [](char byte) { return static_cast<unsigned char>(byte) < ' ' && byte != '\n' && byte != '\t' && byte != '\r'; });
    return isPrintable && utf8::isWellFormed(DataView(bytes));
}

struct Field {
    int number = 0;
    WireFormatLite::WireType type = WireFormatLite::WIRETYPE_VARINT;
    std::uint64_t value = 0;  ///< of numbers
    DataView bytes;           ///< of what has a length, and of what is in a group
};

/// Reads the fields of a message one by one.
class FieldReader {
public:
    explicit FieldReader(DataView message) : message_(message), input_(message.data(), static_cast<int>(message.size())) {}

    /// False at the end, or where it makes no sense any more.
    bool next(Field& field, int depth = 0)
    {
        const std::uint32_t tag = input_.ReadTag();
        field = {.number = WireFormatLite::GetTagFieldNumber(tag), .type = WireFormatLite::GetTagWireType(tag)};
        if (field.number == 0) return false;
        std::uint32_t length = 0;
        const std::int64_t start = input_.CurrentPosition();
        switch (field.type) {
        case WireFormatLite::WIRETYPE_VARINT: return input_.ReadVarint64(&field.value);
        case WireFormatLite::WIRETYPE_FIXED64: return input_.ReadLittleEndian64(&field.value);
        case WireFormatLite::WIRETYPE_FIXED32: {
            std::uint32_t value = 0;
            if (!input_.ReadLittleEndian32(&value)) return false;
            field.value = value;
            return true;
        }
        case WireFormatLite::WIRETYPE_LENGTH_DELIMITED:
            if (!input_.ReadVarint32(&length)) return false;
            field.bytes = message_.sub(input_.CurrentPosition(), length);
            return field.bytes.size() == std::int64_t{length} && input_.Skip(static_cast<int>(length));
        case WireFormatLite::WIRETYPE_START_GROUP: {
            Field inner;
            std::int64_t end = start;
            while (depth < deepestGroup && next(inner, depth + 1)) end = input_.CurrentPosition();
            field.bytes = message_.sub(start, end - start);
            isBroken_ = isBroken_ || !input_.LastTagWas(WireFormatLite::MakeTag(field.number, WireFormatLite::WIRETYPE_END_GROUP));
            return !isBroken_;
        }
        case WireFormatLite::WIRETYPE_END_GROUP: break;
        }
        return false;
    }
    bool isAtEnd() { return !isBroken_ && input_.ConsumedEntireMessage(); }

private:
    DataView message_;
    CodedInputStream input_;
    bool isBroken_ = false;  ///< a group without its end
};

bool isMessage(DataView bytes)
{
    FieldReader reader(bytes);
    Field field;
    while (reader.next(field)) {}
    return reader.isAtEnd();
}

void addRows(DataView message, const std::string& prefix, int depth, std::vector<DetailRow>& rows)
{
    FieldReader reader(message);
    Field field;
    while (rows.size() < mostRows && reader.next(field)) {
        const std::string number = prefix + std::to_string(field.number);
        const auto add = [&](const char* type, std::string value) {
            rows.push_back({fmt::format("Field {} ({})", number, type), std::move(value)});
        };
        switch (field.type) {
        case WireFormatLite::WIRETYPE_VARINT: add("varint", std::to_string(field.value)); break;
        case WireFormatLite::WIRETYPE_FIXED32: {
            const auto value = static_cast<std::uint32_t>(field.value);
            add("32 bits", fmt::format("{} or {:g}", value, std::bit_cast<float>(value)));
            break;
        }
        case WireFormatLite::WIRETYPE_FIXED64: add("64 bits", fmt::format("{} or {:g}", field.value, std::bit_cast<double>(field.value))); break;
        case WireFormatLite::WIRETYPE_LENGTH_DELIMITED: {
            const std::string_view bytes = field.bytes.text();
            if (isText(bytes)) {
                add("length-delimited",
                    fmt::format("\"{}\"{}", utf8::repaired(DataView(bytes.substr(0, longestText))), bytes.size() > longestText ? "…" : ""));
                break;
            }
            // What is no text may be a message; nobody but the schema can tell.
            add("length-delimited", byteCountText(std::ssize(bytes)));
            if (depth < deepest && isMessage(field.bytes)) addRows(field.bytes, number + '.', depth + 1, rows);
            break;
        }
        default:
            add("group", "");
            if (depth < deepest) addRows(field.bytes, number + '.', depth + 1, rows);
            break;
        }
    }
}

}  // namespace

std::vector<DetailRow> ProtobufFields::rows(DataView message)
{
    std::vector<DetailRow> rows;
    if (!isMessage(message)) return {{"Fields unknown", "it is no protocol buffers message"}};
    addRows(message, {}, 0, rows);
    if (rows.size() == mostRows) rows.push_back({"Further fields", "are not shown"});
    return rows;
}

}  // namespace sealscope
