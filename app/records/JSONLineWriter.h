// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/records/Spill.h"
#include "host/VELDependencies/VELValue.h"
#include "host/VELModels/StreamBody.h"
#include "platform/Data.h"

#include <concepts>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace sealscope {

/// Appends JSON (RFC 8259) to a text: one value without line breaks. Texts come out as UTF-8; what is not well-formed in
/// them is replaced by U+FFFD. Characters that a terminal or a log could obey are escaped. The text is there once the value is
/// whole, and is not to be touched before.
class JSONLineWriter {
public:
    /// `spill`, where there is one, is called whenever the text has grown large; it may take it away.
    explicit JSONLineWriter(std::string& text, Spill spill = {}) : text_(text), spill_(std::move(spill)) {}
    ~JSONLineWriter() { settle(); }
    JSONLineWriter(const JSONLineWriter&) = delete;
    JSONLineWriter& operator=(const JSONLineWriter&) = delete;

    void beginObject() { open('{'); }
    void endObject()
    {
        close('}');
        spillIfLarge();
    }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    /// The name of the member that the next value fills.
    void key(std::string_view name);
    /// The same of a name that stands in the program, and needs no escapes.
    template <std::size_t size> void key(const char (&name)[size])
    {
        char* next = room(size + 3);
        if (needsComma_) *next++ = ',';
        *next++ = '"';
        std::memcpy(next, name, size - 1);
        next += size - 1;
        *next++ = '"';
        *next++ = ':';
        next_ = next;
        needsComma_ = false;
    }

    /// A piece of what stands in an array and was written elsewhere, the commas between included. Nothing else may stand there.
    void raw(std::string_view json)
    {
        std::memcpy(room(json.size()), json.data(), json.size());
        next_ += json.size();
        needsComma_ = true;
        spillIfLarge();
    }
    void null() { literal("null"); }
    void value(bool flag) { literal(flag ? "true" : "false"); }
    void value(std::integral auto number) { integer(static_cast<std::int64_t>(number)); }
    /// The shortest digits that read back as the same number, always with a fraction or an exponent; null when not finite.
    void value(double number);
    void value(std::string_view characters);
    void value(const char* characters) { value(std::string_view(characters)); }
    void value(const std::string& characters) { value(std::string_view(characters)); }
    /// A plug-in's value in the type that it has; bytes as Base64.
    void value(const VELValue& any);
    /// Bytes as Base64 with padding (RFC 4648 §4).
    void base64(const StreamBody& body);

    template <class Value> void value(const std::optional<Value>& optional)
    {
        if (optional)
            value(*optional);
        else
            null();
    }
    template <class Value> void member(std::string_view name, const Value& content)
    {
        key(name);
        value(content);
    }
    template <std::size_t size, class Value> void member(const char (&name)[size], const Value& content)
    {
        key(name);
        value(content);
    }

private:
    /// Room for `count` characters behind what is written.
    char* room(std::size_t count)
    {
        if (static_cast<std::size_t>(end_ - next_) < count) grow(count);
        return next_;
    }
    void grow(std::size_t count);
    /// Leaves in the text what is written, and no more.
    void settle();
    void spillIfLarge()
    {
        if (spill_.isDue(next_ ? static_cast<std::size_t>(next_ - text_.data()) : text_.size())) spill();
    }
    void spill();

    void separate()
    {
        if (needsComma_) *room(1) = ',', ++next_;
        needsComma_ = true;
    }
    void open(char bracket)
    {
        separate();
        *room(1) = bracket;
        ++next_;
        ++depth_;
        needsComma_ = false;
    }
    void close(char bracket)
    {
        *room(1) = bracket;
        ++next_;
        needsComma_ = true;
        if (--depth_ == 0) settle();
    }
    void append(std::string_view characters)
    {
        std::memcpy(room(characters.size()), characters.data(), characters.size());
        next_ += characters.size();
    }
    void literal(std::string_view word)
    {
        separate();
        append(word);
        if (depth_ == 0) settle();
    }
    void integer(std::int64_t number);
    void quoted(std::string_view characters);

    std::string& text_;
    Spill spill_;
    // While a value is being written the text is longer than what is written of it.
    char* next_ = nullptr;
    char* end_ = nullptr;
    int depth_ = 0;
    bool needsComma_ = false;
};

}  // namespace sealscope
