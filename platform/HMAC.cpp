// SPDX-License-Identifier: Apache-2.0
#include "platform/HMAC.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace sealscope {

namespace {

/// A context that knows its hash and has no key. Looking a hash up by name costs more than a short HMAC, copying such a
/// context does not. Made once and kept for the life of the process.
EVP_MAC_CTX* unkeyedContext(const char* digest)
{
    EVP_MAC* const algorithm = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
    EVP_MAC_CTX* const context = algorithm ? EVP_MAC_CTX_new(algorithm) : nullptr;
    EVP_MAC_free(algorithm);
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(digest), 0),
                                     OSSL_PARAM_construct_end()};
    if (context && EVP_MAC_CTX_set_params(context, parameters) == 1) return context;
    EVP_MAC_CTX_free(context);
    return nullptr;
}

const EVP_MAC_CTX* unkeyedContext(HashFunction hash)
{
    if (hash == HashFunction::sha384) {
        static const EVP_MAC_CTX* const context = unkeyedContext("SHA384");
        return context;
    }
    static const EVP_MAC_CTX* const context = unkeyedContext("SHA256");
    return context;
}

}  // namespace

void HMAC::Free::operator()(evp_mac_ctx_st* context) const { EVP_MAC_CTX_free(context); }

HMAC::HMAC(HashFunction hash, DataView key) : hash_(hash)
{
    const EVP_MAC_CTX* const unkeyed = unkeyedContext(hash);
    if (unkeyed) context_.reset(EVP_MAC_CTX_dup(unkeyed));
    // An empty key is a key; a null pointer would mean the one from before.
    static constexpr std::uint8_t none = 0;
    isSound_ =
        context_ && EVP_MAC_init(context_.get(), key.isEmpty() ? &none : key.data(), static_cast<std::size_t>(key.size()), nullptr) == 1;
}

void HMAC::update(DataView bytes)
{
    if (isSound_) isSound_ = EVP_MAC_update(context_.get(), bytes.data(), static_cast<std::size_t>(bytes.size())) == 1;
}

bool HMAC::finish(std::span<std::uint8_t> code)
{
    std::size_t written = 0;
    isSound_ = isSound_ && EVP_MAC_final(context_.get(), code.data(), &written, code.size()) == 1 &&
               EVP_MAC_init(context_.get(), nullptr, 0, nullptr) == 1;
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
