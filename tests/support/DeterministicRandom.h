// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace sealscope {

/// While one lives, libcrypto's random bytes in this thread come from a generator with the given seed, so that a TLS
/// session or a key can be made again, byte for byte. Scopes nest.
class DeterministicRandom {
public:
    explicit DeterministicRandom(std::uint64_t seed);
    ~DeterministicRandom();
    DeterministicRandom(const DeterministicRandom&) = delete;
    DeterministicRandom& operator=(const DeterministicRandom&) = delete;

    std::uint64_t next();

private:
    std::uint64_t state_;
    DeterministicRandom* outer_;
};

}  // namespace sealscope
