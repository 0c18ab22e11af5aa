// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLS13RecordDecryptor.h"

#include <memory>
#include <openssl/evp.h>
#include <stdexcept>
#include <vector>

// Protects single records by libcrypto alone, for tests that need other ones than a TLS stack sends.

namespace sealscope {

/// Ciphertext and tag.
inline Data sealAEAD(AEADCipher cipher, DataView key, DataView nonce, DataView additionalData, DataView plaintext)
{
    const EVP_CIPHER* const algorithm = cipher == AEADCipher::chaCha20Poly1305 ? EVP_chacha20_poly1305()
                                        : key.size() == 32                     ? EVP_aes_256_gcm()
                                                                               : EVP_aes_128_gcm();
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    std::vector<std::uint8_t> sealed(static_cast<std::size_t>(plaintext.size()) + 16);
    int length = 0;
    int rest = 0;
    const bool isSealed =
        EVP_EncryptInit_ex2(context.get(), algorithm, key.data(), nonce.data(), nullptr) == 1 &&
        EVP_EncryptUpdate(context.get(), nullptr, &length, additionalData.data(), static_cast<int>(additionalData.size())) == 1 &&
        (plaintext.isEmpty() ||
         EVP_EncryptUpdate(context.get(), sealed.data(), &length, plaintext.data(), static_cast<int>(plaintext.size())) == 1) &&
        EVP_EncryptFinal_ex(context.get(), sealed.data() + plaintext.size(), &rest) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, sealed.data() + plaintext.size()) == 1;
    if (!isSealed) throw std::runtime_error("libcrypto does not seal");
    return Data(std::move(sealed));
}

/// A TLS 1.2 record as its sender protects it (RFC 5288 §3, RFC 7905 §2).
inline TLS12Record sealTLS12(const TLS12RecordDecryptor::DirectionKeys& keys, AEADCipher cipher, std::uint64_t sequence,
                             std::uint8_t contentType, DataView plaintext)
{
    std::vector<std::uint8_t> payload;
    std::vector<std::uint8_t> nonce(keys.fixedIV.begin(), keys.fixedIV.end());
    for (int i = 0; i < 8; ++i) {
        const auto byte = static_cast<std::uint8_t>(sequence >> (56 - 8 * i));
        if (cipher == AEADCipher::chaCha20Poly1305)
            nonce[static_cast<std::size_t>(4 + i)] ^= byte;
        else
            payload.push_back(byte);
    }
    nonce.insert(nonce.end(), payload.begin(), payload.end());
    std::vector<std::uint8_t> header;
    for (int i = 0; i < 8; ++i) header.push_back(static_cast<std::uint8_t>(sequence >> (56 - 8 * i)));
    const auto length = static_cast<std::uint16_t>(plaintext.size());
    header.insert(header.end(), {contentType, 3, 3, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
    const Data sealed = sealAEAD(cipher, keys.key.bytes(), nonce, header, plaintext);
    payload.insert(payload.end(), sealed.view().begin(), sealed.view().end());
    return {.contentType = contentType, .version = 0x0303, .payload = Data(std::move(payload)), .packetIds = {}, .timestamp = 0};
}

/// A TLS 1.3 record that protects these bytes, inner type and padding among them (RFC 8446 §5.2).
inline TLS13CipherRecord sealTLS13(const TLS13TrafficKeys& keys, AEADCipher cipher, std::uint64_t sequence, DataView innerPlaintext)
{
    std::vector<std::uint8_t> nonce(keys.iv.begin(), keys.iv.end());
    for (std::size_t i = 0; i < 8; ++i) nonce[4 + i] ^= static_cast<std::uint8_t>(sequence >> (56 - 8 * i));
    const auto length = static_cast<std::uint16_t>(innerPlaintext.size() + 16);
    const Data header{23, 3, 3, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    return {.header = header, .body = sealAEAD(cipher, keys.key.bytes(), nonce, header, innerPlaintext), .packetIds = {}, .timestamp = 0};
}

}  // namespace sealscope
