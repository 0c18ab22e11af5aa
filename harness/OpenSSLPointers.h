// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stdexcept>
#include <string>

namespace sealscope {

template <auto freeFunction> struct OpenSSLDelete {
    template <class T> void operator()(T* object) const { freeFunction(object); }
};
template <class T, auto freeFunction> using OpenSSLPointer = std::unique_ptr<T, OpenSSLDelete<freeFunction>>;

using BIOPointer = OpenSSLPointer<BIO, BIO_free_all>;
using BIGNUMPointer = OpenSSLPointer<BIGNUM, BN_free>;
using EVPKeyPointer = OpenSSLPointer<EVP_PKEY, EVP_PKEY_free>;
using SSLPointer = OpenSSLPointer<SSL, SSL_free>;
using SSLContextPointer = OpenSSLPointer<SSL_CTX, SSL_CTX_free>;
using SSLSessionPointer = OpenSSLPointer<SSL_SESSION, SSL_SESSION_free>;
using X509Pointer = OpenSSLPointer<X509, X509_free>;

/// Throws what libcrypto has to say about a call that failed.
inline void check(bool succeeded, const char* what)
{
    if (succeeded) return;
    char reason[256] = "no reason given";
    if (const unsigned long error = ERR_get_error(); error != 0) ERR_error_string_n(error, reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error(std::string(what) + ": " + reason);
}

}  // namespace sealscope
