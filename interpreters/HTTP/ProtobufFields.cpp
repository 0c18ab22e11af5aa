// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/ProtobufFields.h"

#include "interpreters/HTTP/MessageText.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <google/protobuf/unknown_field_set.h>
#include <string>

namespace sealscope {

namespace {

using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

constexpr std::size_t mostRows = 200;
constexpr int deepest = 8;
constexpr std::size_t longestText = 1'000;

bool isText(std::string_view bytes)
{
    const bool isPrintable = std::ranges::none_of(
        bytes, [](char byte) { return static_cast<unsigned char>(byte) < ' ' && byte != '\n' && byte != '\t' && byte != '\r'; });
    return isPrintable && utf8::isWellFormed(DataView(bytes));
}

void addRows(const UnknownFieldSet& fields, const std::string& prefix, int depth, std::vector<DetailRow>& rows)
{
    for (int i = 0; i < fields.field_count() && rows.size() < mostRows; ++i) {
        const UnknownField& field = fields.field(i);
        const std::string number = prefix + std::to_string(field.number());
        const auto add = [&](const char* type, std::string value) {
            rows.push_back({fmt::format("Field {} ({})", number, type), std::move(value)});
        };
        switch (field.type()) {
        case UnknownField::TYPE_VARINT: add("varint", std::to_string(field.varint())); break;
        case UnknownField::TYPE_FIXED32:
            add("32 bits", fmt::format("{} or {:g}", field.fixed32(), std::bit_cast<float>(field.fixed32())));
            break;
        case UnknownField::TYPE_FIXED64:
            add("64 bits", fmt::format("{} or {:g}", field.fixed64(), std::bit_cast<double>(field.fixed64())));
            break;
        case UnknownField::TYPE_GROUP:
            add("group", "");
            if (depth < deepest) addRows(field.group(), number + '.', depth + 1, rows);
            break;
        case UnknownField::TYPE_LENGTH_DELIMITED: {
            const std::string& bytes = field.length_delimited();
            if (isText(bytes)) {
                add("length-delimited", fmt::format("\"{}\"{}", utf8::repaired(DataView(std::string_view(bytes).substr(0, longestText))),
                                                    bytes.size() > longestText ? "…" : ""));
                break;
            }
            // What is no text may be a message; nobody but the schema can tell.
            add("length-delimited", byteCountText(std::ssize(bytes)));
            UnknownFieldSet inner;
            if (depth < deepest && inner.ParseFromString(bytes)) addRows(inner, number + '.', depth + 1, rows);
            break;
        }
        }
    }
}

}  // namespace

std::vector<DetailRow> ProtobufFields::rows(DataView message)
{
    UnknownFieldSet fields;
    std::vector<DetailRow> rows;
    if (!fields.ParseFromArray(message.data(), static_cast<int>(message.size())))
        return {{"Fields unknown", "it is no protocol buffers message"}};
    addRows(fields, {}, 0, rows);
    if (rows.size() == mostRows) rows.push_back({"Further fields", "are not shown"});
    return rows;
}

}  // namespace sealscope
