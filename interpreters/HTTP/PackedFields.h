// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/HTTP/HeaderFields.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// Header fields one behind another in one place, as they are kept of messages that are not shown yet. Values may be shared with others'.
class PackedFields {
public:
    using SharedValue = std::shared_ptr<const std::string>;

    bool isEmpty() const { return bytes_.empty(); }
    void clear()
    {
        bytes_.clear();
        shared_.reset();
    }
    void append(std::string_view name, std::string_view value) { append(name, value, static_cast<std::uint32_t>(value.size())); }
    void append(std::string_view name, SharedValue value)
    {
        append(name, "", isShared);
        if (!shared_) shared_ = std::make_unique<std::vector<SharedValue>>();
        shared_->push_back(std::move(value));
    }
    /// In no more room than they need.
    PackedFields fitted() const
    {
        PackedFields fields;
        fields.bytes_ = bytes_;
        if (shared_) fields.shared_ = std::make_unique<std::vector<SharedValue>>(*shared_);
        return fields;
    }

    /// Bytes that they take apart from shared values.
    std::size_t heldBytes() const { return bytes_.capacity() + (shared_ ? 64 + shared_->capacity() * sizeof(SharedValue) : 0); }

    /// Calls `visit` with name and value of each field until it gives false.
    template <class Visit> void forEach(const Visit& visit) const
    {
        const SharedValue* shared = shared_ ? shared_->data() : nullptr;
        for (const char *next = bytes_.data(), *const end = next + bytes_.size(); next != end;) {
            std::uint32_t lengths[2];
            std::memcpy(lengths, next, sizeof lengths);
            const std::string_view name(next + sizeof lengths, lengths[0]);
            next = name.data() + name.size();
            const bool isElsewhere = lengths[1] == isShared;
            const std::string_view value = isElsewhere ? std::string_view(**shared++) : std::string_view(next, lengths[1]);
            if (!isElsewhere) next += value.size();
            if (!visit(name, value)) return;
        }
    }
    /// The value of the first field of a name.
    std::optional<std::string_view> find(std::string_view wanted) const
    {
        std::optional<std::string_view> found;
        forEach([&](std::string_view name, std::string_view value) {
            if (HeaderField::isNamed(name, wanted)) found = value;
            return !found;
        });
        return found;
    }
    /// Adds them as rows.
    void appendTo(HeaderFields& rows) const
    {
        rows.reserve(rows.size() + count());
        forEach([&](std::string_view name, std::string_view value) {
            setRow(rows.emplace_back(), name, value);
            return true;
        });
    }
    /// Makes them the rows behind the first few, in place of those that were there, and leaves room for some more.
    void assignTo(HeaderFields& rows, std::size_t first, std::size_t more) const
    {
        const std::size_t fields = first + count();
        if (rows.capacity() < fields + more) {
            rows.resize(std::min(first, rows.size()));  // no more is to be moved
            rows.reserve(fields + more);
        }
        rows.resize(fields);
        auto row = rows.begin() + static_cast<std::ptrdiff_t>(first);
        forEach([&](std::string_view name, std::string_view value) {
            setRow(*row++, name, value);
            return true;
        });
    }

private:
    static constexpr std::uint32_t isShared = 0xFFFF'FFFF;  ///< in place of a length

    void append(std::string_view name, std::string_view value, std::uint32_t valueLength)
    {
        const std::uint32_t lengths[2] = {static_cast<std::uint32_t>(name.size()), valueLength};
        const std::size_t used = bytes_.size(), needed = used + sizeof lengths + name.size() + value.size();
        if (needed > bytes_.capacity()) bytes_.reserve(std::max(needed, 2 * used));
        bytes_.resize_and_overwrite(needed, [&](char* bytes, std::size_t) {
            std::memcpy(bytes += used, lengths, sizeof lengths);
            std::memcpy(bytes += sizeof lengths, name.data(), name.size());
            std::memcpy(bytes + name.size(), value.data(), value.size());
            return needed;
        });
    }
    std::size_t count() const
    {
        std::size_t fields = 0;
        forEach([&](std::string_view, std::string_view) { return ++fields, true; });
        return fields;
    }
    static void setRow(DetailRow& row, std::string_view name, std::string_view value)
    {
        // Messages of a connection have most in common with those before.
        if (row.name != name) row.name.assign(name);
        if (row.value != value) row.value.assign(value);
    }

    std::string bytes_;
    std::unique_ptr<std::vector<SharedValue>> shared_;  ///< those values, in order; null for none, as in most
};

}  // namespace sealscope
