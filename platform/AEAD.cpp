// SPDX-License-Identifier: Apache-2.0
#include "platform/AEAD.h"

#include <algorithm>
#include <array>
#include <climits>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace sealscope {

namespace {

constexpr std::int64_t usualNonce = 12;
constexpr std::int64_t largestNonce = 128;  // that libcrypto takes

const EVP_CIPHER* ariaCipher(std::int64_t keySize)
{
    static const EVP_CIPHER* const aria128 = EVP_CIPHER_fetch(nullptr, "ARIA-128-GCM", nullptr);
    static const EVP_CIPHER* const aria256 = EVP_CIPHER_fetch(nullptr, "ARIA-256-GCM", nullptr);
    return keySize == 16 ? aria128 : keySize == 32 ? aria256 : nullptr;
}

/// Looked up by name once: fetching costs more than opening a short message.
const EVP_CIPHER* cipherFor(AEADAlgorithm algorithm, std::int64_t keySize)
{
    static const EVP_CIPHER* const aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    static const EVP_CIPHER* const aes192 = EVP_CIPHER_fetch(nullptr, "AES-192-GCM", nullptr);
    static const EVP_CIPHER* const aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    static const EVP_CIPHER* const chaCha20 = EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr);
    if (algorithm == AEADAlgorithm::chaCha20Poly1305) return keySize == 32 ? chaCha20 : nullptr;
    if (algorithm == AEADAlgorithm::ariaGCM) return ariaCipher(keySize);
    switch (keySize) {
    case 16: return aes128;
    case 24: return aes192;
    case 32: return aes256;
    default: return nullptr;
    }
}

OSSL_PARAM bytesParameter(const char* name, DataView bytes)
{
    return OSSL_PARAM_construct_octet_string(name, const_cast<std::uint8_t*>(bytes.data()), static_cast<std::size_t>(bytes.size()));
}

}  // namespace

void AEADOpener::Free::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

AEADOpener::AEADOpener(AEADAlgorithm algorithm, DataView key) : algorithm_(algorithm), context_(EVP_CIPHER_CTX_new()) { setKey(key); }

void AEADOpener::setKey(DataView key)
{
    const EVP_CIPHER* const cipher = cipherFor(algorithm_, key.size());
    // Naming the cipher again would make the context anew, which an unusual length of nonces asks for.
    const bool isSame = isKeyed_ && nonceSize_ == usualNonce && EVP_CIPHER_CTX_get0_cipher(context_.get()) == cipher;
    nonceSize_ = usualNonce;
    fixedNonce_.reset();
    isKeyed_ = cipher && context_ && EVP_DecryptInit_ex2(context_.get(), isSame ? nullptr : cipher, key.data(), nullptr, nullptr) == 1;
}

bool AEADOpener::begin(DataView nonce, DataView tag)
{
    if (nonce.size() != nonceSize_) {
        if (algorithm_ == AEADAlgorithm::chaCha20Poly1305) return false;
        const int size = static_cast<int>(nonce.size());
        if (EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_IVLEN, size, nullptr) != 1) return false;
        nonceSize_ = nonce.size();
    }
    fixedNonce_.reset();
    const OSSL_PARAM parameters[] = {bytesParameter(OSSL_CIPHER_PARAM_AEAD_TAG, tag), OSSL_PARAM_construct_end()};
    return EVP_DecryptInit_ex2(context_.get(), nullptr, nullptr, nonce.data(), parameters) == 1;
}

// Beginning anew costs a fifth of what opening a record of ordinary size does. Setting the nonce as TLS does, a part that is
// fixed and a part that counts, comes to the same; for ChaCha20-Poly1305 all of it is fixed. The library compares names for
// each parameter, so what still stands from the message before is left out. The first message that opens that way proves it.
bool AEADOpener::beginNext(DataView nonce, DataView tag)
{
    if (nonce.size() != usualNonce || nonceSize_ != usualNonce) return false;
    OSSL_PARAM parameters[4] = {bytesParameter(OSSL_CIPHER_PARAM_AEAD_TAG, tag)};
    OSSL_PARAM* next = parameters + 1;
    if (algorithm_ == AEADAlgorithm::chaCha20Poly1305) {
        *next++ = bytesParameter(OSSL_CIPHER_PARAM_AEAD_TLS1_IV_FIXED, nonce);
    } else {
        if (fixedNonce_ != nonce.u32(0)) *next++ = bytesParameter(OSSL_CIPHER_PARAM_AEAD_TLS1_IV_FIXED, nonce.sub(0, 4));
        *next++ = bytesParameter(OSSL_CIPHER_PARAM_AEAD_TLS1_SET_IV_INV, nonce.from(4));
    }
    *next = OSSL_PARAM_construct_end();
    fixedNonce_ = nonce.u32(0);
    return EVP_CIPHER_CTX_set_params(context_.get(), parameters) == 1;
}

bool AEADOpener::finish(DataView additionalData, const ScatteredView& ciphertext, std::uint8_t* plaintext)
{
    // A call for no bytes would mean something else to the library than no bytes.
    int written = 0;
    if (!additionalData.isEmpty() &&
        EVP_DecryptUpdate(context_.get(), nullptr, &written, additionalData.data(), static_cast<int>(additionalData.size())) != 1)
        return false;
    if (!decrypt(ciphertext, plaintext)) return false;
    std::uint8_t rest[EVP_MAX_BLOCK_LENGTH];
    return EVP_DecryptFinal_ex(context_.get(), rest, &written) == 1;
}

// AES-GCM takes stretches as they lie, which costs less than to gather them: the processor fetches the bytes behind those that
// it works on. ChaCha20-Poly1305 slows down on pieces that are no multiple of several of its blocks, and goes over each twice:
// it gets pieces that it likes, small enough to stay in the nearest cache, and what follows is fetched meanwhile.
bool AEADOpener::decrypt(const ScatteredView& ciphertext, std::uint8_t* plaintext)
{
    const auto take = [&](DataView part) {
        int written = 0;
        const bool isTaken = EVP_DecryptUpdate(context_.get(), plaintext, &written, part.data(), static_cast<int>(part.size())) == 1;
        plaintext += written;
        return isTaken;
    };
    if (algorithm_ != AEADAlgorithm::chaCha20Poly1305 || ciphertext.isInOnePlace()) return ciphertext.forEach(take);

    constexpr std::int64_t pieceSize = 2'048, cacheLine = 64;
    std::array<std::uint8_t, pieceSize> piece;
    std::int64_t filled = 0;
    const bool isTaken = ciphertext.forEach([&](DataView part) {
        while (!part.isEmpty()) {
            const DataView next = part.sub(0, pieceSize - filled);
            for (std::int64_t i = 0; i < next.size(); i += cacheLine) __builtin_prefetch(next.data() + i + pieceSize);
            std::copy(next.begin(), next.end(), piece.begin() + filled);
            filled += next.size();
            part = part.from(next.size());
            if (filled < pieceSize) break;
            filled = 0;
            if (!take(DataView(piece))) return false;
        }
        return true;
    });
    return isTaken && (filled == 0 || take(DataView(piece).sub(0, filled)));
}

bool AEADOpener::open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext)
{
    if (!isKeyed_ || tag.size() != tagSize || nonce.size() < usualNonce || nonce.size() > largestNonce) return false;
    if (ciphertext.size() > INT_MAX || additionalData.size() > INT_MAX) return false;
    if (beginNext(nonce, tag)) {
        const bool isOpen = finish(additionalData, ciphertext, plaintext);
        nextIsProven_ = nextIsProven_ || isOpen;
        if (isOpen || nextIsProven_) return isOpen;
    }
    return begin(nonce, tag) && finish(additionalData, ciphertext, plaintext);
}

}  // namespace sealscope
