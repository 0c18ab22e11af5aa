// SPDX-License-Identifier: Apache-2.0
//
// Whether memory gets into a core is told to the kernel page by page, so secrets have pages of their own. Small pieces come from
// lists of free pieces of one size, powers of two; these are cut from slabs that stay. Large pieces are mapped one by one.
#include "platform/SecretMemory.h"

#include <array>
#include <bit>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace sealscope {

namespace {

// The address sanitizer watches over what the general allocator gives.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool hasPagesOfItsOwn = false;
#elif defined(__has_feature)
constexpr bool hasPagesOfItsOwn = !__has_feature(address_sanitizer);
#else
constexpr bool hasPagesOfItsOwn = true;
#endif

constexpr std::size_t smallest = 32, largestOfSlab = 256 * 1'024, slabSize = 4 * largestOfSlab;

void* mapped(std::size_t size)
{
    void* const bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (bytes == MAP_FAILED) throw std::bad_alloc();
    madvise(bytes, size, MADV_DONTDUMP);
    return bytes;
}

/// Free pieces of one size. A piece that is free begins with the address of the next.
class Pieces {
public:
    void* take(std::size_t size)
    {
        const std::lock_guard lock(mutex_);
        if (!first_) {
            if (slabLeft_ < size) {
                slab_ = static_cast<std::byte*>(mapped(slabSize));
                slabLeft_ = slabSize;
            }
            slabLeft_ -= size;
            return std::exchange(slab_, slab_ + size);
        }
        void* const piece = first_;
        std::memcpy(&first_, piece, sizeof first_);
        return piece;
    }
    void give(void* piece)
    {
        const std::lock_guard lock(mutex_);
        std::memcpy(piece, &first_, sizeof first_);
        first_ = piece;
    }

private:
    std::mutex mutex_;
    void* first_ = nullptr;
    std::byte* slab_ = nullptr;
    std::size_t slabLeft_ = 0;
};

struct Place {
    Pieces& pieces;
    std::size_t size;
};

/// Never destroyed: secrets are let go until the very end of the process.
Place placeFor(std::size_t size)
{
    static auto& pieces = *new std::array<Pieces, std::bit_width(largestOfSlab / smallest)>;
    const std::size_t whole = std::bit_ceil(size < smallest ? smallest : size);
    return {pieces[static_cast<std::size_t>(std::bit_width(whole / smallest) - 1)], whole};
}

}  // namespace

void wipe(void* bytes, std::size_t size) { explicit_bzero(bytes, size); }

void* allocateSecret(std::size_t size)
{
    if constexpr (!hasPagesOfItsOwn) return ::operator new(size);
    if (size > largestOfSlab) return mapped(size);
    const Place place = placeFor(size);
    return place.pieces.take(place.size);
}

void releaseSecret(void* bytes, std::size_t size)
{
    wipe(bytes, size);
    if constexpr (!hasPagesOfItsOwn)
        ::operator delete(bytes);
    else if (size > largestOfSlab)
        munmap(bytes, size);
    else
        placeFor(size).pieces.give(bytes);
}

}  // namespace sealscope
