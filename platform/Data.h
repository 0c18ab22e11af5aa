// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <algorithm>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Half-open range of byte offsets, lower ..< upper.
struct ByteRange {
    std::int64_t lower = 0;
    std::int64_t upper = 0;
    std::int64_t size() const { return upper - lower; }
    bool isEmpty() const { return upper <= lower; }
    bool operator==(const ByteRange&) const = default;
};

/// Bytes that somebody else keeps alive: a pointer and a length, for the duration of a call.
/// Offsets and sizes are signed, so that a difference may go below zero and still compare as it reads.
/// The walking readers `u8`, `u16`, `u24` read big-endian and give 0 for what does not lie wholly inside the view.
class DataView {
public:
    constexpr DataView() = default;
    constexpr DataView(const std::uint8_t* bytes, std::int64_t size) : bytes_(bytes), size_(size) {}
    DataView(std::span<const std::uint8_t> bytes) : DataView(bytes.data(), static_cast<std::int64_t>(bytes.size())) {}
    DataView(const std::vector<std::uint8_t>& bytes) : DataView(bytes.data(), static_cast<std::int64_t>(bytes.size())) {}
    explicit DataView(std::string_view text)
        : DataView(reinterpret_cast<const std::uint8_t*>(text.data()), static_cast<std::int64_t>(text.size()))
    {}

    constexpr const std::uint8_t* data() const { return bytes_; }
    constexpr std::int64_t size() const { return size_; }
    constexpr bool isEmpty() const { return size_ == 0; }
    constexpr const std::uint8_t* begin() const { return bytes_; }
    constexpr const std::uint8_t* end() const { return bytes_ + size_; }
    /// The byte at an offset that lies inside the view.
    constexpr std::uint8_t operator[](std::int64_t offset) const { return bytes_[offset]; }

    /// True when `count` bytes at `offset` lie inside the view.
    constexpr bool holds(std::int64_t offset, std::int64_t count) const
    {
        return offset >= 0 && count >= 0 && offset <= size_ && count <= size_ - offset;
    }
    constexpr std::uint8_t u8(std::int64_t offset) const { return holds(offset, 1) ? bytes_[offset] : std::uint8_t{0}; }
    constexpr std::uint16_t u16(std::int64_t offset) const
    {
        return holds(offset, 2) ? static_cast<std::uint16_t>(bytes_[offset] << 8 | bytes_[offset + 1]) : std::uint16_t{0};
    }
    /// Three single bytes, most significant first; each counts as 0 where it is missing.
    constexpr std::int64_t u24(std::int64_t offset) const { return u8(offset) << 16 | u8(offset + 1) << 8 | u8(offset + 2); }
    constexpr std::uint32_t u32(std::int64_t offset) const { return static_cast<std::uint32_t>(u16(offset)) << 16 | u16(offset + 2); }

    /// `count` bytes from `offset`, cut to what the view holds.
    constexpr DataView sub(std::int64_t offset, std::int64_t count) const
    {
        const std::int64_t from = std::clamp<std::int64_t>(offset, 0, size_);
        return {bytes_ + from, std::clamp<std::int64_t>(count, 0, size_ - from)};
    }
    constexpr DataView from(std::int64_t offset) const { return sub(offset, size_ - std::max<std::int64_t>(offset, 0)); }

    /// The bytes as characters, unchecked.
    std::string_view text() const { return {reinterpret_cast<const char*>(bytes_), static_cast<std::size_t>(size_)}; }

    friend bool operator==(DataView a, DataView b)
    {
        return a.size_ == b.size_ && (a.size_ == 0 || std::memcmp(a.bytes_, b.bytes_, static_cast<std::size_t>(a.size_)) == 0);
    }

private:
    const std::uint8_t* bytes_ = nullptr;
    std::int64_t size_ = 0;
};

/// An immutable slice of shared bytes, for what outlives a call. Copies share the bytes; any thread may read them.
class Data {
public:
    Data() = default;
    /// A copy of the bytes.
    explicit Data(DataView bytes);
    Data(std::initializer_list<std::uint8_t> bytes) : Data(DataView(bytes.begin(), static_cast<std::int64_t>(bytes.size()))) {}
    /// Takes the vector over.
    explicit Data(std::vector<std::uint8_t>&& bytes);
    /// Bytes that `owner` keeps alive.
    Data(std::shared_ptr<const void> owner, DataView bytes) : owner_(std::move(owner)), view_(bytes) {}
    static Data fromText(std::string_view text) { return Data(DataView(text)); }

    operator DataView() const { return view_; }
    DataView view() const { return view_; }
    const std::uint8_t* data() const { return view_.data(); }
    std::int64_t size() const { return view_.size(); }
    bool isEmpty() const { return view_.isEmpty(); }
    std::uint8_t operator[](std::int64_t offset) const { return view_[offset]; }

    /// A slice that shares these bytes, cut to what they hold.
    Data sub(std::int64_t offset, std::int64_t count) const { return {owner_, view_.sub(offset, count)}; }

    friend bool operator==(const Data& a, const Data& b) { return a.view_ == b.view_; }
    friend bool operator==(const Data& a, DataView b) { return a.view_ == b; }

private:
    std::shared_ptr<const void> owner_;
    DataView view_;
};

/// Lower-case hexadecimal, two digits a byte. Never called on secrets.
std::string hexText(DataView bytes);

}  // namespace sealscope SEALSCOPE_API
