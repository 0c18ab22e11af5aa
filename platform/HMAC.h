// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

namespace sealscope SEALSCOPE_API {

enum class HashFunction : std::uint8_t {
    sha256,
    sha384,
    md5,   ///< RFC 1321, for what was protected with it once
    sha1,  ///< the same of FIPS 180-4
};

/// Bytes of a hash, and of an HMAC over it.
constexpr std::int64_t digestSize(HashFunction hash)
{
    switch (hash) {
    case HashFunction::sha384: return 48;
    case HashFunction::md5: return 16;
    case HashFunction::sha1: return 20;
    case HashFunction::sha256: break;
    }
    return 32;
}

/// HMAC (RFC 2104), keyed once for any number of messages. Used by one thread at a time.
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
/// The hash of several pieces, one behind another.
SecretBytes digest(HashFunction hash, std::initializer_list<DataView> pieces);

}  // namespace sealscope SEALSCOPE_API
