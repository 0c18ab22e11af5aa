// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/HTTP/HeaderFields.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// Header fields one behind another in one place, as they are kept of messages that are not shown yet.
class PackedFields {
public:
    bool isEmpty() const { return bytes_.empty(); }
    void clear() { bytes_.clear(); }
    void append(std::string_view name, std::string_view value)
    {
        const std::uint32_t lengths[2] = {static_cast<std::uint32_t>(name.size()), static_cast<std::uint32_t>(value.size())};
        bytes_.append(reinterpret_cast<const char*>(lengths), sizeof lengths).append(name).append(value);
    }
    /// In no more room than they need.
    PackedFields fitted() const { return *this; }

    /// Calls `visit` with name and value of each field until it gives false.
    template <class Visit> void forEach(const Visit& visit) const
    {
        for (const char *next = bytes_.data(), *const end = next + bytes_.size(); next != end;) {
            std::uint32_t lengths[2];
            std::memcpy(lengths, next, sizeof lengths);
            const char* const name = next + sizeof lengths;
            next = name + lengths[0] + lengths[1];
            if (!visit(std::string_view(name, lengths[0]), std::string_view(name + lengths[0], lengths[1]))) return;
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
    /// Adds them as rows, and leaves room for as many more.
    void appendTo(HeaderFields& rows, std::size_t more = 0) const
    {
        std::size_t count = rows.size() + more;
        forEach([&](std::string_view, std::string_view) { return ++count, true; });
        rows.reserve(count);
        forEach([&](std::string_view name, std::string_view value) {
            rows.emplace_back(std::string(name), std::string(value));
            return true;
        });
    }

private:
    std::string bytes_;
};

}  // namespace sealscope
