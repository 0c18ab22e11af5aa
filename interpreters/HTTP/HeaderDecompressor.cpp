// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HeaderDecompressor.h"

#include <algorithm>
#include <fmt/format.h>
#include <nghttp2/nghttp2.h>
#include <optional>

namespace sealscope {

namespace {

constexpr std::int64_t staticEntries = 61;  // RFC 7541 Appendix A
// What a peer may let the table grow to by its SETTINGS. It grows when the compressor says so.
constexpr std::size_t largestTable = 1 << 20;
// Of a connection whose start is missing: "table size update to 65536" (RFC 7541 §6.3). Entries that the peer dropped earlier than
// that are never referred to again, so that keeping more of them than it does no harm.
constexpr std::uint8_t growTable[] = {0x3F, 0xE1, 0xFF, 0x03};

/// Reads representations (RFC 7541 §5, §6).
class Cursor {
public:
    explicit Cursor(DataView bytes) : bytes_(bytes) {}
    std::int64_t position() const { return position_; }
    bool isAtEnd() const { return position_ == bytes_.size(); }
    std::uint8_t peek() const { return bytes_.u8(position_); }

    std::optional<std::int64_t> integer(int prefixBits)
    {
        if (isAtEnd()) return std::nullopt;
        const std::int64_t most = (1 << prefixBits) - 1;
        std::int64_t number = bytes_[position_++] & most;
        if (number < most) return number;
        for (int shift = 0; shift <= 28; shift += 7) {
            if (isAtEnd()) return std::nullopt;
            const std::uint8_t byte = bytes_[position_++];
            number += std::int64_t{byte & 0x7F} << shift;
            if (byte < 0x80) return number;
        }
        return std::nullopt;
    }
    /// Steps over a string.
    bool string()
    {
        const auto length = integer(7);
        if (!length || *length > bytes_.size() - position_) return false;
        position_ += *length;
        return true;
    }

private:
    DataView bytes_;
    std::int64_t position_ = 0;
};

}  // namespace

void HeaderDecompressor::Free::operator()(nghttp2_hd_inflater* inflater) const { nghttp2_hd_inflate_del(inflater); }

HeaderDecompressor::HeaderDecompressor()
{
    nghttp2_hd_inflater* made = nullptr;
    if (nghttp2_hd_inflate_new(&made) != 0) throw std::bad_alloc();
    inflater_.reset(made);
    nghttp2_hd_inflate_change_table_size(made, largestTable);
}

void HeaderDecompressor::forget()
{
    *this = HeaderDecompressor();
    isWhole_ = false;
    Block none;
    inflate(DataView(growTable, std::ssize(growTable)), Part::last, none);
    nghttp2_hd_inflate_end_headers(inflater_.get());
}

std::string_view HeaderDecompressor::text(Problem problem)
{
    switch (problem) {
    case Problem::makesNoSense: return "its compression makes no sense from there on";
    case Problem::tooLong: return "it is longer than 1 MB";
    }
    std::unreachable();
}

PackedFields::SharedValue HeaderDecompressor::shared(std::string_view value)
{
    // Entries leave the table, and others come to lie where they were.
    if (const auto known = sharedValues_.find(value.data()); known != sharedValues_.end() && *known->second == value) return known->second;
    sharedBytes_ += value.size();
    if (sharedBytes_ > 2 * largestTable) {
        sharedValues_.clear();
        sharedBytes_ = value.size();
    }
    return sharedValues_[value.data()] = std::make_shared<const std::string>(value);
}

bool HeaderDecompressor::inflate(DataView bytes, Part part, Block& block)
{
    const std::uint8_t* next = bytes.data();
    auto left = static_cast<std::size_t>(bytes.size());
    for (;;) {
        nghttp2_nv field{};
        int flags = 0;
        const ssize_t read = nghttp2_hd_inflate_hd2(inflater_.get(), &field, &flags, next, left, part == Part::last);
        if (read < 0) {
            block.problem = Problem::makesNoSense;
            return false;
        }
        next += read;
        left -= static_cast<std::size_t>(read);
        if (flags & NGHTTP2_HD_INFLATE_EMIT) {
            const std::string_view name(reinterpret_cast<const char*>(field.name), field.namelen);
            const std::string_view value(reinterpret_cast<const char*>(field.value), field.valuelen);
            // A compression bomb repeats large entries: what nobody will see is not copied.
            if (block.fieldBytes > longestBlock || block.count >= mostFields)
                ++block.unshown;
            else if (HeaderField::isASCII(name) && HeaderField::isASCII(value))
                add(name, value, block);
            else
                add(HeaderField::text(name), HeaderField::text(value), block);
        }
        if (flags & NGHTTP2_HD_INFLATE_FINAL) return true;
        if (!(flags & NGHTTP2_HD_INFLATE_EMIT) && left == 0) return true;
    }
}

void HeaderDecompressor::push(DataView fragment, Block& block)
{
    if (block.problem) return;
    if (isWhole_) {
        inflate(fragment, Part::moreFollows, block);
        return;
    }
    const auto room = longestBlock - std::ssize(collected_);
    if (fragment.size() > room) block.problem = Problem::tooLong;
    fragment = fragment.sub(0, room);
    collected_.insert(collected_.end(), fragment.begin(), fragment.end());
}

void HeaderDecompressor::end(Block& block)
{
    if (isWhole_ && !block.problem) inflate({}, Part::last, block);
    if (!isWhole_) readKnownPart(collected_, block);
    collected_.clear();
    if (!block.problem)
        nghttp2_hd_inflate_end_headers(inflater_.get());
    else
        forget();
}

void HeaderDecompressor::readKnownPart(DataView bytes, Block& block)
{
    static constexpr std::string_view unknownName = "(unknown name)";
    Cursor cursor(bytes);
    while (!cursor.isAtEnd()) {
        const std::int64_t start = cursor.position();
        const std::uint8_t first = cursor.peek();
        const auto isUnknown = [&](std::int64_t index) {
            return index > staticEntries && index > static_cast<std::int64_t>(nghttp2_hd_inflate_get_num_table_entries(inflater_.get()));
        };
        bool isRead = true;
        if (first & 0x80) {  // an entry of the table
            const auto index = cursor.integer(7);
            if (index && isUnknown(*index)) {
                ++block.unknown;
                add(fmt::format("(table entry {})", *index), "unknown: the capture lacks where it was set", block);
                continue;
            }
            isRead = index.has_value();
        } else if ((first & 0xE0) == 0x20) {  // a new size of the table
            isRead = cursor.integer(5).has_value();
        } else {
            const bool isKept = (first & 0xC0) == 0x40;
            const auto index = cursor.integer(isKept ? 6 : 4);
            const std::int64_t rest = cursor.position();
            isRead = index && (*index > 0 || cursor.string()) && cursor.string();
            if (isRead && isUnknown(*index)) {
                // The value is there. The field goes into the table as the compressor put it there, under a name that says so.
                std::vector<std::uint8_t> literal{static_cast<std::uint8_t>(isKept ? 0x40 : 0),
                                                  static_cast<std::uint8_t>(unknownName.size())};
                literal.insert(literal.end(), unknownName.begin(), unknownName.end());
                const DataView value = bytes.sub(rest, cursor.position() - rest);
                literal.insert(literal.end(), value.begin(), value.end());
                ++block.unknown;
                if (!inflate(literal, Part::moreFollows, block)) return;
                continue;
            }
        }
        if (!isRead) {
            if (!block.problem) block.problem = Problem::makesNoSense;
            return;
        }
        if (!inflate(bytes.sub(start, cursor.position() - start), Part::moreFollows, block)) return;
    }
}

}  // namespace sealscope
