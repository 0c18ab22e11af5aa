// SPDX-License-Identifier: Apache-2.0
#include "platform/PrivateKey.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <utility>

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
    const std::optional<SecretText>& passphrase;
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

}  // namespace

std::expected<PrivateKey, PrivateKey::Problem> PrivateKey::read(DataView file, const std::optional<SecretText>& passphrase)
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
    const PKCS12Pointer store(d2i_PKCS12_bio(binary.get(), nullptr));
    ERR_clear_error();
    if (!store) return std::unexpected(Problem::noKey);
    const char* const given = passphrase ? passphrase->c_str() : "";
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    const bool isOpen = PKCS12_parse(store.get(), given, &key, &certificate, nullptr) == 1;
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
    const bool isOpen = context && EVP_PKEY_decrypt_init(context.get()) == 1 &&
                        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                        EVP_PKEY_decrypt(context.get(), plaintext.data(), &length, ciphertext.data(),
                                         static_cast<std::size_t>(ciphertext.size())) == 1;
    ERR_clear_error();
    if (!isOpen) return std::nullopt;
    plaintext.resize(length);
    return plaintext;
}

bool PrivateKey::isOf(DataView certificate) const
{
    const std::uint8_t* next = certificate.data();
    const X509Pointer parsed(d2i_X509(nullptr, &next, static_cast<long>(certificate.size())));
    const EVP_PKEY* const shown = parsed ? X509_get0_pubkey(parsed.get()) : nullptr;
    const bool isSame = shown && EVP_PKEY_eq(shown, key_.get()) == 1;
    ERR_clear_error();
    return isSame;
}

}  // namespace sealscope
