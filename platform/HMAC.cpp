// SPDX-License-Identifier: Apache-2.0
#include "platform/HMAC.h"

// For the hash functions themselves, which libcrypto would rather see asked for by its general interface. That allocates a
// context, and another for every copy of one: a quarter of what a connection's keys cost, which are a dozen codes of a few dozen
// bytes.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <algorithm>
#include <array>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <stdexcept>
#include <utility>
#include <variant>

// RFC 2104: H(key ^ opad | H(key ^ ipad | message)). The hash's states after the two paddings are kept, and each message goes
// on from copies of them.

namespace sealscope {

namespace {

template <class... Calls> struct Overloaded : Calls... {
    using Calls::operator()...;
};

/// A hash that has taken in some bytes (FIPS 180-4). Copies go on from there by themselves; each wipes what it has.
class RunningHash {
public:
    explicit RunningHash(HashFunction hash) { begin(hash); }
    RunningHash(const RunningHash&) = default;
    RunningHash& operator=(const RunningHash&) = default;
    ~RunningHash() { wipe(&state_, sizeof state_); }

    void begin(HashFunction hash)
    {
        switch (hash) {
        case HashFunction::sha256: SHA256_Init(&state_.emplace<SHA256_CTX>()); break;
        case HashFunction::sha384: SHA384_Init(&state_.emplace<SHA512_CTX>()); break;
        case HashFunction::md5: MD5_Init(&state_.emplace<MD5_CTX>()); break;
        case HashFunction::sha1: SHA1_Init(&state_.emplace<SHA_CTX>()); break;
        }
    }

    void add(DataView bytes)
    {
        const auto size = static_cast<std::size_t>(bytes.size());
        std::visit(Overloaded{[&](SHA256_CTX& state) { SHA256_Update(&state, bytes.data(), size); },
                              [&](SHA512_CTX& state) { SHA384_Update(&state, bytes.data(), size); },
                              [&](MD5_CTX& state) { MD5_Update(&state, bytes.data(), size); },
                              [&](SHA_CTX& state) { SHA1_Update(&state, bytes.data(), size); }},
                   state_);
    }

    /// Writes the digest; nothing can be added afterwards.
    void take(std::uint8_t* digest)
    {
        std::visit(Overloaded{[&](SHA256_CTX& state) { SHA256_Final(digest, &state); },
                              [&](SHA512_CTX& state) { SHA384_Final(digest, &state); }, [&](MD5_CTX& state) { MD5_Final(digest, &state); },
                              [&](SHA_CTX& state) { SHA1_Final(digest, &state); }},
                   state_);
    }

private:
    std::variant<SHA256_CTX, SHA512_CTX, MD5_CTX, SHA_CTX> state_;
};

constexpr std::size_t largestDigest = 48;
constexpr std::size_t largestBlock = 128;

/// Bytes that the hash takes in at a time (FIPS 180-4 §1).
constexpr std::size_t blockSize(HashFunction hash) { return hash == HashFunction::sha384 ? largestBlock : 64; }

/// Begins with a key that is filled up with zeros to the hash's block.
void beginWith(RunningHash& state, HashFunction hash, DataView key, std::uint8_t padding)
{
    std::array<std::uint8_t, largestBlock> block{};
    std::copy(key.begin(), key.end(), block.begin());
    for (std::uint8_t& byte : block) byte ^= padding;
    state.begin(hash);
    state.add({block.data(), static_cast<std::int64_t>(blockSize(hash))});
    wipe(block.data(), block.size());
}

}  // namespace

struct HMAC::States {
    explicit States(HashFunction hash) : inner(hash), outer(hash), running(hash) {}
    static void* operator new(std::size_t size) { return allocateSecret(size); }
    static void operator delete(void* states, std::size_t size) { releaseSecret(states, size); }

    RunningHash inner;  ///< has taken in the key with the inner padding
    RunningHash outer;  ///< the same with the outer
    RunningHash running;
    bool hasBegun = false;  ///< `running` goes on from `inner` with the message so far
};

HMAC::~HMAC() = default;

HMAC::HMAC(HashFunction hash, DataView key) : hash_(hash), states_(std::make_unique<States>(hash))
{
    std::array<std::uint8_t, largestDigest> digest;
    const bool isLong = key.size() > static_cast<std::int64_t>(blockSize(hash_));
    if (isLong) {
        RunningHash shortened(hash_);
        shortened.add(key);
        shortened.take(digest.data());
        key = {digest.data(), digestSize(hash_)};
    }
    beginWith(states_->inner, hash_, key, 0x36);
    beginWith(states_->outer, hash_, key, 0x5C);
    if (isLong) wipe(digest.data(), digest.size());
}

void HMAC::update(DataView bytes)
{
    if (!std::exchange(states_->hasBegun, true)) states_->running = states_->inner;
    states_->running.add(bytes);
}

void HMAC::finish(std::span<std::uint8_t> code)
{
    if (std::ssize(code) != digestSize(hash_)) throw std::invalid_argument("an HMAC has as many bytes as its hash");
    update({});
    std::array<std::uint8_t, largestDigest> inner;
    states_->running.take(inner.data());
    states_->running = states_->outer;
    states_->running.add({inner.data(), digestSize(hash_)});
    states_->running.take(code.data());
    states_->hasBegun = false;
}

SecretBytes hmac(HashFunction hash, DataView key, DataView message)
{
    SecretBytes code(static_cast<std::size_t>(digestSize(hash)));
    HMAC keyed(hash, key);
    keyed.update(message);
    keyed.finish(code);
    return code;
}

SecretBytes digest(HashFunction hash, std::initializer_list<DataView> pieces)
{
    RunningHash running(hash);
    for (const DataView piece : pieces) running.add(piece);
    SecretBytes result(static_cast<std::size_t>(digestSize(hash)));
    running.take(result.data());
    return result;
}

}  // namespace sealscope
