// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Overwrites bytes in a way that no compiler leaves out.
void wipe(void* bytes, std::size_t size);

/// Memory that no core file gets and that stays apart from other memory: a process that crashes leaves no secret behind. `release`
/// wipes it. Any thread may call both. Throws std::bad_alloc.
void* allocateSecret(std::size_t size);
void releaseSecret(void* bytes, std::size_t size);

/// Memory for secrets, wiped before it is given back.
template <class T> struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <class U> WipingAllocator(const WipingAllocator<U>&) {}

    T* allocate(std::size_t count)
    {
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(allocateSecret(count * sizeof(T)));
    }
    void deallocate(T* items, std::size_t count) { releaseSecret(items, count * sizeof(T)); }
    bool operator==(const WipingAllocator&) const = default;
};

/// Bytes that are secret: wiped when they are let go, also by growing, and in no core.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

/// Text with secrets in it, as that of a key log. A text so short that a string keeps it within itself is neither; no
/// key log line is.
using SecretText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

inline DataView viewOf(const SecretBytes& bytes) { return {bytes.data(), static_cast<std::int64_t>(bytes.size())}; }

}  // namespace sealscope SEALSCOPE_API
