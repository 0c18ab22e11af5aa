// SPDX-License-Identifier: Apache-2.0
// The only way to choose libcrypto's random bytes in every library context is a RAND_METHOD, which OpenSSL 3 calls deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "harness/DeterministicRandom.h"

#include <cstring>
#include <mutex>
#include <openssl/rand.h>

namespace sealscope {

namespace {

thread_local RandomSequence* current = nullptr;

int randomBytes(unsigned char* bytes, int count)
{
    if (current == nullptr) return RAND_OpenSSL()->bytes(bytes, count);
    for (int at = 0; at < count; at += 8) {
        const std::uint64_t word = current->next();
        std::memcpy(bytes + at, &word, static_cast<std::size_t>(count - at < 8 ? count - at : 8));
    }
    return 1;
}

int isSeeded() { return 1; }

void install()
{
    static const RAND_METHOD method = {nullptr, randomBytes, nullptr, nullptr, randomBytes, isSeeded};
    static std::once_flag once;
    std::call_once(once, [] { RAND_set_rand_method(&method); });
}

}  // namespace

DeterministicRandom::DeterministicRandom(RandomSequence& sequence) : outer_(current)
{
    install();
    current = &sequence;
}

DeterministicRandom::~DeterministicRandom() { current = outer_; }

// SplitMix64: every seed, also a small one, starts a different and well mixed sequence.
std::uint64_t RandomSequence::next()
{
    std::uint64_t word = state_ += 0x9E3779B97F4A7C15;
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
    return word ^ (word >> 31);
}

}  // namespace sealscope
