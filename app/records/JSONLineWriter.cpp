// SPDX-License-Identifier: Apache-2.0
#include "app/records/JSONLineWriter.h"

#include "platform/Base64.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fmt/compile.h>
#include <fmt/format.h>
#include <memory>
#include <oneapi/tbb/task_group.h>
#include <type_traits>
#include <utility>
#include <variant>

namespace sealscope {

namespace {

/// Bytes on their way into Base64, so many that several processors may share the work, while the next are made. A large body is never
/// held as a whole.
class Base64Block {
public:
    /// Takes as many of the bytes as there is room for, whose count it returns.
    std::int64_t add(DataView bytes)
    {
        bytes = bytes.sub(0, most - std::ssize(bytes_));
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return bytes.size();
    }
    bool isFull() const { return std::ssize(bytes_) == most; }

    /// Encodes them while other work goes on, until `finish`.
    void begin()
    {
        texts_.resize(static_cast<std::size_t>((std::ssize(bytes_) + piece - 1) / piece));
        const auto encode = [this](std::size_t i) {
            texts_[i] = sealscope::base64(DataView(bytes_).sub(static_cast<std::int64_t>(i) * piece, piece));
        };
        if (texts_.size() == 1) return encode(0);
        if (!texts_.empty() && !group_) group_.reset(new oneapi::tbb::task_group);
        for (std::size_t i = 0; i < texts_.size(); ++i) group_->run([encode, i] { encode(i); });
    }
    void finish()
    {
        if (group_) group_->wait();
        bytes_.clear();
    }
    const std::vector<std::string>& texts() const { return texts_; }

private:
    static constexpr std::int64_t piece = 48 * 1'024, most = 32 * piece;  // whole triples: only the last text is padded

    struct End {
        void operator()(oneapi::tbb::task_group* group) const
        {
            group->cancel();
            group->wait();
            delete group;
        }
    };

    std::vector<std::uint8_t> bytes_;
    std::vector<std::string> texts_;
    std::unique_ptr<oneapi::tbb::task_group, End> group_;  ///< the last, since its tasks use the others
};

/// ASCII that stands for itself inside quotation marks. DEL may stand there too, but a terminal would obey it.
constexpr auto isPlain = [] {
    std::array<bool, 256> plain{};
    for (int byte = 0x20; byte < 0x7F; ++byte) plain[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
    return plain;
}();

/// Sixteen characters that are looked at at once, since most of what is written is plain.
using Sixteen = signed char __attribute__((vector_size(16)));

/// Not zero where a character is not plain; what is not ASCII is negative.
Sixteen notPlain(Sixteen characters) { return (characters < 0x20) | (characters == '"') | (characters == '\\') | (characters == 0x7F); }

bool isZero(Sixteen characters)
{
    std::uint64_t halves[2];
    std::memcpy(halves, &characters, sizeof halves);
    return (halves[0] | halves[1]) == 0;
}

/// Copies 2 * sizeof(Word) characters at most, but sizeof(Word) at least: the first and the last of them, which may overlap. Whether
/// all are plain.
template <class Word> bool copyEnds(const char* from, std::size_t count, char* to)
{
    Word ends[2];
    std::memcpy(&ends[0], from, sizeof(Word));
    std::memcpy(&ends[1], from + count - sizeof(Word), sizeof(Word));
    std::memcpy(to, &ends[0], sizeof(Word));
    std::memcpy(to + count - sizeof(Word), &ends[1], sizeof(Word));
    Sixteen both;
    static_assert(sizeof both % sizeof ends == 0);
    for (std::size_t i = 0; i < sizeof both; i += sizeof ends) std::memcpy(reinterpret_cast<char*>(&both) + i, ends, sizeof ends);
    return isZero(notPlain(both));
}

void appendEscape(std::string& text, char32_t scalar)
{
    const auto unit = [&](char32_t code) { fmt::format_to(std::back_inserter(text), "\\u{:04x}", static_cast<std::uint32_t>(code)); };
    switch (scalar) {
    case '"': text += "\\\""; return;
    case '\\': text += "\\\\"; return;
    case '\n': text += "\\n"; return;
    case '\r': text += "\\r"; return;
    case '\t': text += "\\t"; return;
    default: break;
    }
    if (scalar < 0x10000) return unit(scalar);
    unit(0xD800 + ((scalar - 0x10000) >> 10));
    unit(0xDC00 + ((scalar - 0x10000) & 0x3FF));
}

/// Characters that JSON wants escaped, that are line ends to some readers (LINE and PARAGRAPH SEPARATOR), or that terminals
/// obey (controls, direction marks and overrides).
bool wantsEscape(char32_t scalar)
{
    if (scalar < 0x80) return !isPlain[scalar];
    return scalar < 0xA0 || (scalar >= 0x200E && scalar <= 0x200F) || (scalar >= 0x2028 && scalar <= 0x202E) ||
           (scalar >= 0x2066 && scalar <= 0x2069) || scalar == 0x061C || scalar == 0xFEFF;
}

/// Copies plain characters, and gives where they end; null when not all are plain.
inline char* copyPlain(std::string_view characters, char* to)
{
    const char* const from = characters.data();
    const std::size_t count = characters.size();
    bool arePlain = true;
    if (count >= sizeof(Sixteen)) {
        Sixteen bad{};
        const auto copySixteen = [&](std::size_t offset) {
            Sixteen here;
            std::memcpy(&here, from + offset, sizeof here);
            bad |= notPlain(here);
            std::memcpy(to + offset, &here, sizeof here);
        };
        for (std::size_t offset = 0; count - offset > sizeof(Sixteen); offset += sizeof(Sixteen)) copySixteen(offset);
        copySixteen(count - sizeof(Sixteen));  // some of them once more
        arePlain = isZero(bad);
    } else if (count >= 8) {
        arePlain = copyEnds<std::uint64_t>(from, count, to);
    } else if (count >= 4) {
        arePlain = copyEnds<std::uint32_t>(from, count, to);
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            arePlain &= isPlain[static_cast<std::uint8_t>(from[i])];
            to[i] = from[i];
        }
    }
    return arePlain ? to + count : nullptr;
}

/// A text without quotation marks, escaped where it has to be.
std::string escaped(std::string_view characters)
{
    const auto isASCII = [](char character) { return static_cast<unsigned char>(character) < 0x80; };
    const auto isPlainASCII = [](char character) { return isPlain[static_cast<std::uint8_t>(character)]; };
    std::string repaired;
    if (!std::ranges::all_of(characters, isASCII)) characters = repaired = utf8::repaired(DataView(characters));
    const DataView bytes(characters);
    std::string text;
    text.reserve(characters.size() + characters.size() / 32 + 16);
    for (auto next = characters.begin(); next != characters.end();) {
        const auto special = std::find_if_not(next, characters.end(), isPlainASCII);
        text.append(next, special);
        next = special;
        if (next == characters.end()) break;
        const utf8::Scalar scalar = *utf8::scalarAt(bytes, next - characters.begin());
        if (wantsEscape(scalar.value))
            appendEscape(text, scalar.value);
        else
            text.append(next, next + scalar.length);
        next += scalar.length;
    }
    return text;
}

/// Times as captures have them, to the microsecond: the shortest digits that read back as the same number, as long as microseconds
/// are further apart than such numbers. Null for any other.
char* writeMicroseconds(double number, char* to)
{
    constexpr double largest = 4'294'967'296, smallest = 1e-4;
    if (!(number >= smallest && number < largest)) return nullptr;
    const auto microseconds = static_cast<std::int64_t>(number * 1e6 + 0.5);
    if (static_cast<double>(microseconds) / 1e6 != number) return nullptr;
    const auto whole = static_cast<std::uint32_t>(microseconds / 1'000'000);
    to = std::to_chars(to, to + 10, whole).ptr;
    *to++ = '.';
    auto rest = static_cast<std::uint32_t>(microseconds % 1'000'000);
    for (int i = 5; i >= 0; --i, rest /= 10) to[i] = static_cast<char>('0' + rest % 10);
    int digits = 6;
    while (digits > 1 && to[digits - 1] == '0') --digits;
    return to + digits;
}

}  // namespace

void JSONLineWriter::grow(std::size_t count)
{
    constexpr std::size_t step = 512;
    const std::size_t used = next_ ? static_cast<std::size_t>(next_ - text_.data()) : text_.size();
    const std::size_t size = std::max(text_.capacity(), used + count + step);
    text_.resize_and_overwrite(size, [&](char*, std::size_t) { return size; });
    next_ = text_.data() + used;
    end_ = text_.data() + size;
}

void JSONLineWriter::settle()
{
    if (!next_) return;
    text_.resize(static_cast<std::size_t>(next_ - text_.data()));
    next_ = end_ = nullptr;
}

void JSONLineWriter::spill()
{
    settle();
    spill_(text_);
}

void JSONLineWriter::key(std::string_view name)
{
    quoted(name);
    *room(1) = ':';
    ++next_;
    needsComma_ = false;
}

void JSONLineWriter::value(std::string_view characters)
{
    quoted(characters);
    if (depth_ == 0) settle();
}

void JSONLineWriter::integer(std::int64_t number)
{
    constexpr std::size_t longest = 20;
    char* next = room(longest + 1);
    if (needsComma_) *next++ = ',';
    needsComma_ = true;
    next_ = std::to_chars(next, next + longest, number).ptr;
    if (depth_ == 0) settle();
}

void JSONLineWriter::value(double number)
{
    if (!std::isfinite(number)) return null();
    separate();
    char* const start = room(40);
    char* end = writeMicroseconds(number, start);
    if (!end) {
        end = fmt::format_to(start, FMT_COMPILE("{}"), number);
        if (std::string_view(start, static_cast<std::size_t>(end - start)).find_first_of(".e") == std::string_view::npos) {
            *end++ = '.';
            *end++ = '0';
        }
    }
    next_ = end;
    if (depth_ == 0) settle();
}

void JSONLineWriter::quoted(std::string_view characters)
{
    char* start = room(characters.size() + 3);
    if (needsComma_) *start++ = ',';
    needsComma_ = true;
    *start++ = '"';
    char* end = copyPlain(characters, start);
    if (!end) {
        next_ = start;
        const std::string text = escaped(characters);
        end = std::ranges::copy(text, room(text.size() + 1)).out;
    }
    *end = '"';
    next_ = end + 1;
}

void JSONLineWriter::value(const VELValue& any)
{
    std::visit(
        [&](const auto& content) {
            if constexpr (std::is_same_v<std::decay_t<decltype(content)>, Data>)
                base64(content);
            else
                value(content);
        },
        any);
}

void JSONLineWriter::base64(const StreamBody& body)
{
    separate();
    append("\"");
    Base64Block filling, encoding;
    const auto turn = [&] {
        encoding.finish();
        for (const std::string& text : encoding.texts()) {
            append(text);
            spillIfLarge();
        }
        std::swap(filling, encoding);
        encoding.begin();
    };
    body.forEachPiece([&](DataView bytes) {
        while (!bytes.isEmpty()) {
            bytes = bytes.from(filling.add(bytes));
            if (filling.isFull()) turn();
        }
        return true;
    });
    turn();
    turn();
    append("\"");
    if (depth_ == 0) settle();
}

}  // namespace sealscope
