// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/RecordAEAD.h"

#include "platform/SecretMemory.h"

#include <array>
#include <gcrypt.h>
#include <span>

namespace sealscope {

namespace {

/// The library wants its version asked for before anything else, once in a process.
bool isLibraryReady()
{
    static const bool isReady = [] {
        if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) return true;
        if (!gcry_check_version(nullptr)) return false;
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        return true;
    }();
    return isReady;
}

std::size_t sizeOf(DataView bytes) { return static_cast<std::size_t>(bytes.size()); }

}  // namespace

void CamelliaGCM::Close::operator()(gcry_cipher_handle* handle) const { gcry_cipher_close(handle); }

CamelliaGCM::CamelliaGCM(DataView key)
{
    gcry_cipher_hd_t handle = nullptr;
    const int algorithm = key.size() == 16 ? GCRY_CIPHER_CAMELLIA128 : GCRY_CIPHER_CAMELLIA256;
    if (!isLibraryReady() || gcry_cipher_open(&handle, algorithm, GCRY_CIPHER_MODE_GCM, 0) != 0) return;
    handle_.reset(handle);
    if (gcry_cipher_setkey(handle, key.data(), static_cast<std::size_t>(key.size())) != 0) handle_.reset();
}

bool CamelliaGCM::open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext)
{
    if (!handle_ || gcry_cipher_reset(handle_.get()) != 0 || gcry_cipher_setiv(handle_.get(), nonce.data(), sizeOf(nonce)) != 0) return false;
    if (gcry_cipher_authenticate(handle_.get(), additionalData.data(), sizeOf(additionalData)) != 0) return false;
    // Only the last piece of a message may have a length that is no multiple of the block's.
    ciphertext.copy(std::span(plaintext, static_cast<std::size_t>(ciphertext.size())));
    gcry_cipher_final(handle_.get());
    if (gcry_cipher_decrypt(handle_.get(), plaintext, static_cast<std::size_t>(ciphertext.size()), nullptr, 0) != 0) return false;
    return gcry_cipher_checktag(handle_.get(), tag.data(), sizeOf(tag)) == 0;
}

void OldChaCha20Poly1305::Close::operator()(gcry_cipher_handle* handle) const { gcry_cipher_close(handle); }

OldChaCha20Poly1305::OldChaCha20Poly1305(DataView key)
{
    gcry_cipher_hd_t handle = nullptr;
    if (!isLibraryReady() || gcry_cipher_open(&handle, GCRY_CIPHER_CHACHA20, GCRY_CIPHER_MODE_STREAM, 0) != 0) return;
    handle_.reset(handle);
    if (gcry_cipher_setkey(handle, key.data(), sizeOf(key)) != 0) handle_.reset();
}

bool OldChaCha20Poly1305::open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext)
{
    if (!handle_ || gcry_cipher_setiv(handle_.get(), nonce.data(), sizeOf(nonce)) != 0) return false;
    // The first block of the key stream keys the hash, the message begins at the second.
    std::array<std::uint8_t, 64> firstBlock{};
    if (gcry_cipher_decrypt(handle_.get(), firstBlock.data(), firstBlock.size(), nullptr, 0) != 0) return false;
    gcry_mac_hd_t mac = nullptr;
    if (gcry_mac_open(&mac, GCRY_MAC_POLY1305, 0, nullptr) != 0) return false;
    const auto lengthOf = [](std::int64_t length) {
        std::array<std::uint8_t, 8> bytes;
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(length >> (8 * i));
        return bytes;
    };
    const auto additionalLength = lengthOf(additionalData.size()), length = lengthOf(ciphertext.size());
    const auto count = static_cast<std::size_t>(ciphertext.size());
    ciphertext.copy(std::span(plaintext, count));
    const bool isAuthentic = gcry_mac_setkey(mac, firstBlock.data(), 32) == 0 &&
                             gcry_mac_write(mac, additionalData.data(), sizeOf(additionalData)) == 0 &&
                             gcry_mac_write(mac, additionalLength.data(), additionalLength.size()) == 0 &&
                             gcry_mac_write(mac, plaintext, count) == 0 && gcry_mac_write(mac, length.data(), length.size()) == 0 &&
                             gcry_mac_verify(mac, tag.data(), sizeOf(tag)) == 0;
    gcry_mac_close(mac);
    wipe(firstBlock.data(), firstBlock.size());
    return isAuthentic && gcry_cipher_decrypt(handle_.get(), plaintext, count, nullptr, 0) == 0;
}

void RecordAEAD::prepare()
{
    loadBulkCiphers();
    (void)isLibraryReady();
}

RecordAEAD::RecordAEAD(const ReachSuite& suite, DataView key) : cipher_(make(suite, key)) {}

RecordAEAD::Cipher RecordAEAD::make(const ReachSuite& suite, DataView key)
{
    if (suite.protection == RecordProtection::ccm) return CCMOpener(key, suite.tagLength);
    if (suite.protection == RecordProtection::chaCha20OldNonce) return OldChaCha20Poly1305(key);
    if (suite.protection == RecordProtection::chaCha20) return AEADOpener(AEADAlgorithm::chaCha20Poly1305, key);
    switch (suite.block) {
    case ReachSuite::BlockCipher::camellia: return CamelliaGCM(key);
    case ReachSuite::BlockCipher::aria: return AEADOpener(AEADAlgorithm::ariaGCM, key);
    case ReachSuite::BlockCipher::aes: break;
    }
    return AEADOpener(AEADAlgorithm::aesGCM, key);
}

}  // namespace sealscope
