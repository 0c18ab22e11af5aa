// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"

#include <cstdint>
#include <memory>
#include <span>

struct evp_md_ctx_st;

namespace sealscope SEALSCOPE_API {

enum class HashFunction : std::uint8_t { sha256, sha384 };

/// Bytes of a hash, and of an HMAC over it.
constexpr std::int64_t digestSize(HashFunction hash) { return hash == HashFunction::sha384 ? 48 : 32; }

/// HMAC (RFC 2104) over SHA-256 or SHA-384, keyed once for any number of messages. Used by one thread at a time.
class HMAC {
public:
    HMAC(HashFunction hash, DataView key);

    HashFunction hash() const { return hash_; }
    /// Goes on with another key and a new message.
    void setKey(DataView key);
    /// Adds to the message.
    void update(DataView bytes);
    /// The code of the message so far, into `code` of `digestSize(hash())` bytes; then a new message begins. False where
    /// the cryptographic library refuses, as it may when it lacks the hash.
    [[nodiscard]] bool finish(std::span<std::uint8_t> code);

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    using Context = std::unique_ptr<evp_md_ctx_st, Free>;
    static Context makeContext();

    HashFunction hash_;
    Context inner_ = makeContext();  ///< has taken in the key with the inner padding
    Context outer_ = makeContext();  ///< the same with the outer
    Context running_ = makeContext();
    bool isSound_ = false;
    bool hasBegun_ = false;  ///< `running_` goes on from `inner_` with the message so far
};

/// The code of one message; empty where the cryptographic library refuses.
SecretBytes hmac(HashFunction hash, DataView key, DataView message);

}  // namespace sealscope SEALSCOPE_API
