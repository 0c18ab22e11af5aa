// SPDX-License-Identifier: Apache-2.0
#include "platform/CryptoLibrary.h"

#include "platform/ErrorQueueMark.h"

#include <cstdlib>
#include <openssl/crypto.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

namespace sealscope {

void CryptoLibrary::configure()
{
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
    legacyContext();
}

ossl_lib_ctx_st* CryptoLibrary::legacyContext()
{
    static OSSL_LIB_CTX* const context = [] {
        const ErrorQueueMark mark;
        OSSL_LIB_CTX* const made = OSSL_LIB_CTX_new();
        if (made) OSSL_PROVIDER_load(made, "legacy");
        return made;
    }();
    return context;
}

std::filesystem::path CryptoLibrary::configurationFile()
{
    if (const char* const chosen = std::getenv("OPENSSL_CONF"); chosen && *chosen) return chosen;
    return std::filesystem::path(X509_get_default_cert_area()) / "openssl.cnf";
}

}  // namespace sealscope
