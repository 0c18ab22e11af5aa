// SPDX-License-Identifier: Apache-2.0
#include "platform/HMAC.h"

#include <algorithm>
#include <array>
#include <openssl/evp.h>

// RFC 2104: H(key ^ opad | H(key ^ ipad | message)). The hash's states after the two paddings are kept, and each message goes
// on from copies of them. libcrypto has an HMAC that does the same; a key that serves for two codes of a few dozen bytes, as
// those of a TLS connection do, takes it a quarter longer, most of that for coming about.

namespace sealscope {

namespace {

const EVP_MD* algorithm(HashFunction hash)
{
    // Looked up by name once: that costs more than a short message.
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    static const EVP_MD* const sha384 = EVP_MD_fetch(nullptr, "SHA384", nullptr);
    return hash == HashFunction::sha384 ? sha384 : sha256;
}

constexpr std::size_t largestBlock = 128;

/// Bytes that the hash takes in at a time (FIPS 180-4 §1).
constexpr std::size_t blockSize(HashFunction hash) { return hash == HashFunction::sha384 ? largestBlock : 64; }

bool begin(EVP_MD_CTX* context, HashFunction hash) { return EVP_DigestInit_ex2(context, algorithm(hash), nullptr) == 1; }

bool add(EVP_MD_CTX* context, DataView bytes)
{
    return EVP_DigestUpdate(context, bytes.data(), static_cast<std::size_t>(bytes.size())) == 1;
}

bool take(EVP_MD_CTX* context, std::uint8_t* digest) { return EVP_DigestFinal_ex(context, digest, nullptr) == 1; }

/// Begins a hash with a key that is filled up with zeros to the hash's block.
bool beginWith(EVP_MD_CTX* context, HashFunction hash, DataView key, std::uint8_t padding)
{
    std::array<std::uint8_t, largestBlock> block;
    block.fill(padding);
    std::ranges::transform(key, block.begin(), [&](std::uint8_t byte) { return static_cast<std::uint8_t>(byte ^ padding); });
    const bool hasBegun = begin(context, hash) && add(context, {block.data(), static_cast<std::int64_t>(blockSize(hash))});
    wipe(block.data(), block.size());
    return hasBegun;
}

}  // namespace

void HMAC::Free::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

HMAC::Context HMAC::makeContext() { return Context(EVP_MD_CTX_new()); }

HMAC::HMAC(HashFunction hash, DataView key) : hash_(hash) { setKey(key); }

void HMAC::setKey(DataView key)
{
    isSound_ = inner_ && outer_ && running_ && algorithm(hash_);
    hasBegun_ = false;
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest;
    if (key.size() > static_cast<std::int64_t>(blockSize(hash_))) {
        isSound_ = isSound_ && begin(running_.get(), hash_) && add(running_.get(), key) && take(running_.get(), digest.data());
        key = {digest.data(), digestSize(hash_)};
    }
    isSound_ = isSound_ && beginWith(inner_.get(), hash_, key, 0x36) && beginWith(outer_.get(), hash_, key, 0x5C);
    wipe(digest.data(), digest.size());
}

void HMAC::update(DataView bytes)
{
    if (isSound_ && !hasBegun_) isSound_ = hasBegun_ = EVP_MD_CTX_copy_ex(running_.get(), inner_.get()) == 1;
    isSound_ = isSound_ && add(running_.get(), bytes);
}

bool HMAC::finish(std::span<std::uint8_t> code)
{
    update({});
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> inner;
    isSound_ = isSound_ && static_cast<std::int64_t>(code.size()) == digestSize(hash_) && take(running_.get(), inner.data()) &&
               EVP_MD_CTX_copy_ex(running_.get(), outer_.get()) == 1 && add(running_.get(), {inner.data(), digestSize(hash_)}) &&
               take(running_.get(), code.data());
    hasBegun_ = false;
    return isSound_;
}

SecretBytes hmac(HashFunction hash, DataView key, DataView message)
{
    SecretBytes code(static_cast<std::size_t>(digestSize(hash)));
    HMAC keyed(hash, key);
    keyed.update(message);
    if (!keyed.finish(code)) code.clear();
    return code;
}

}  // namespace sealscope
