// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace sealscope {

/// A sequence of random-looking numbers, the same for the same seed.
class RandomSequence {
public:
    explicit RandomSequence(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next();

private:
    std::uint64_t state_;
};

/// For the length of a scope, libcrypto's random bytes in this thread come from a sequence, so that a TLS session or a key can
/// be made again, byte for byte. Scopes nest.
class DeterministicRandom {
public:
    explicit DeterministicRandom(RandomSequence& sequence);
    ~DeterministicRandom();
    DeterministicRandom(const DeterministicRandom&) = delete;
    DeterministicRandom& operator=(const DeterministicRandom&) = delete;

private:
    RandomSequence* outer_;
};

}  // namespace sealscope
