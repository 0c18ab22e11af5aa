// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"

#include <cstdint>
#include <memory>
#include <span>

namespace sealscope SEALSCOPE_API {

enum class HashFunction : std::uint8_t { sha256, sha384 };

/// Bytes of a hash, and of an HMAC over it.
constexpr std::int64_t digestSize(HashFunction hash) { return hash == HashFunction::sha384 ? 48 : 32; }

/// HMAC (RFC 2104) over SHA-256 or SHA-384, keyed once for any number of messages. Used by one thread at a time.
class HMAC {
public:
    HMAC(HashFunction hash, DataView key);
    ~HMAC();
    HMAC(const HMAC&) = delete;
    HMAC& operator=(const HMAC&) = delete;

    HashFunction hash() const { return hash_; }
    /// Adds to the message.
    void update(DataView bytes);
    /// The code of the message so far, into `code`; then a new message begins. Throws std::invalid_argument when `code` has
    /// not `digestSize(hash())` bytes.
    void finish(std::span<std::uint8_t> code);

private:
    struct States;
    HashFunction hash_;
    std::unique_ptr<States> states_;
};

/// The code of one message.
SecretBytes hmac(HashFunction hash, DataView key, DataView message);

}  // namespace sealscope SEALSCOPE_API
