// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Overwrites bytes in a way that no compiler leaves out.
void wipe(void* bytes, std::size_t size);

/// Memory that is wiped before it is given back.
template <class T> struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <class U> WipingAllocator(const WipingAllocator<U>&) {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* items, std::size_t count)
    {
        wipe(items, count * sizeof(T));
        std::allocator<T>().deallocate(items, count);
    }
    bool operator==(const WipingAllocator&) const = default;
};

/// Bytes that are secret: wiped when they are let go, also by growing.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

/// Text with secrets in it, as that of a key log. A text so short that a string keeps it within itself is not wiped; no key
/// log line is.
using SecretText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

inline DataView viewOf(const SecretBytes& bytes) { return {bytes.data(), static_cast<std::int64_t>(bytes.size())}; }

}  // namespace sealscope SEALSCOPE_API
