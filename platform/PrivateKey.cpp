// SPDX-License-Identifier: Apache-2.0
#include "platform/PrivateKey.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

template <class Type, void (*release)(Type*)> struct Release {
    void operator()(Type* object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY, EVP_PKEY_free>>;
using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using Input = std::unique_ptr<BIO, Release<BIO, BIO_free_all>>;
using PKCS12Pointer = std::unique_ptr<PKCS12, Release<PKCS12, PKCS12_free>>;
using X509Pointer = std::unique_ptr<X509, Release<X509, X509_free>>;

struct Asked {
    const std::optional<SecretBytes>& passphrase;
    bool wasAsked = false;
};

int givePassphrase(char* buffer, int size, int, void* context)
{
    auto& asked = *static_cast<Asked*>(context);
    asked.wasAsked = true;
    if (!asked.passphrase || std::ssize(*asked.passphrase) > size) return -1;
    std::ranges::copy(*asked.passphrase, buffer);
    return static_cast<int>(asked.passphrase->size());
}

/// PKCS #12 as old programs write it is encrypted with ciphers of old, and its digests are everybody's; so both are together here.
OSSL_LIB_CTX* contextOfStores()
{
    static OSSL_LIB_CTX* const context = [] {
        OSSL_LIB_CTX* const made = OSSL_LIB_CTX_new();
        for (const char* const name : {"default", "legacy"})
            if (made) OSSL_PROVIDER_load(made, name);
        return made;
    }();
    return context;
}

}  // namespace

std::expected<PrivateKey, PrivateKey::Problem> PrivateKey::read(DataView file, const std::optional<SecretBytes>& passphrase)
{
    if (file.size() > INT_MAX) return std::unexpected(Problem::noKey);
    const auto finished = [](Key key) -> std::expected<PrivateKey, Problem> {
        ERR_clear_error();
        if (!EVP_PKEY_is_a(key.get(), "RSA")) return std::unexpected(Problem::notRSA);
        return PrivateKey(std::shared_ptr<evp_pkey_st>(std::move(key)));
    };
    Asked asked{passphrase};
    const Input text(BIO_new_mem_buf(file.data(), static_cast<int>(file.size())));
    if (Key key{PEM_read_bio_PrivateKey(text.get(), nullptr, givePassphrase, &asked)}) return finished(std::move(key));
    ERR_clear_error();
    if (asked.wasAsked) return std::unexpected(passphrase ? Problem::wrongPassphrase : Problem::needsPassphrase);

    const Input binary(BIO_new_mem_buf(file.data(), static_cast<int>(file.size())));
    PKCS12* store = PKCS12_init_ex(NID_pkcs7_data, contextOfStores(), nullptr);
    const bool isStore = d2i_PKCS12_bio(binary.get(), &store) != nullptr;
    const PKCS12Pointer heldStore(store);  // null where reading one has failed halfway
    ERR_clear_error();
    if (!isStore) return std::unexpected(Problem::noKey);
    SecretBytes given = passphrase.value_or(SecretBytes());
    given.push_back(0);
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    const bool isOpen = PKCS12_parse(store, reinterpret_cast<const char*>(given.data()), &key, &certificate, nullptr) == 1;
    const Key held(key);
    const X509Pointer unused(certificate);
    ERR_clear_error();
    if (!isOpen) return std::unexpected(passphrase ? Problem::wrongPassphrase : Problem::needsPassphrase);
    if (!key) return std::unexpected(Problem::noKey);
    EVP_PKEY_up_ref(key);
    return finished(Key(key));
}

std::optional<SecretBytes> PrivateKey::decrypt(DataView ciphertext) const
{
    const Context context(EVP_PKEY_CTX_new(key_.get(), nullptr));
    SecretBytes plaintext(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())));
    std::size_t length = plaintext.size();
    const bool isOpen =
        context && EVP_PKEY_decrypt_init(context.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_decrypt(context.get(), plaintext.data(), &length, ciphertext.data(), static_cast<std::size_t>(ciphertext.size())) == 1;
    ERR_clear_error();
    if (!isOpen) return std::nullopt;
    plaintext.resize(length);
    return plaintext;
}

std::int64_t PrivateKey::size() const { return EVP_PKEY_get_size(key_.get()); }

// A certificate that holds the modulus is taken for the key's: to take one apart costs as much as to decrypt with the key.
bool PrivateKey::isOf(DataView certificate) const
{
    BIGNUM* held = nullptr;
    EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_RSA_N, &held);
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(held, BN_free);
    ERR_clear_error();
    if (!number) return false;
    std::vector<std::uint8_t> modulus(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), modulus.data());
    return memmem(certificate.data(), static_cast<std::size_t>(certificate.size()), modulus.data(), modulus.size()) != nullptr;
}

}  // namespace sealscope
