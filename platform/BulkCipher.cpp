// SPDX-License-Identifier: Apache-2.0
#include "platform/BulkCipher.h"

#include "platform/CryptoLibrary.h"
#include "platform/ErrorQueueMark.h"

#include <algorithm>
#include <array>
#include <climits>
#include <mutex>
#include <openssl/evp.h>
#include <span>
#include <vector>

namespace sealscope {

namespace {

struct CipherEntry {
    BulkAlgorithm algorithm;
    std::int64_t keySize = 0;  ///< bytes
    const char* name;
    bool isLegacy = false;
};

constexpr CipherEntry entries[] = {
    {BulkAlgorithm::aesCBC, 16, "AES-128-CBC"},          {BulkAlgorithm::aesCBC, 32, "AES-256-CBC"},
    {BulkAlgorithm::camelliaCBC, 16, "CAMELLIA-128-CBC"}, {BulkAlgorithm::camelliaCBC, 32, "CAMELLIA-256-CBC"},
    {BulkAlgorithm::ariaCBC, 16, "ARIA-128-CBC"},        {BulkAlgorithm::ariaCBC, 32, "ARIA-256-CBC"},
    {BulkAlgorithm::tripleDESCBC, 24, "DES-EDE3-CBC"},   {BulkAlgorithm::seedCBC, 16, "SEED-CBC", true},
    {BulkAlgorithm::ideaCBC, 16, "IDEA-CBC", true},      {BulkAlgorithm::desCBC, 8, "DES-CBC", true},
    {BulkAlgorithm::rc4, 16, "RC4", true},
};

const EVP_CIPHER* cipherFor(BulkAlgorithm algorithm, std::int64_t keySize)
{
    static std::array<std::once_flag, std::size(entries)> once;
    static std::array<const EVP_CIPHER*, std::size(entries)> fetched{};
    for (std::size_t i = 0; i < std::size(entries); ++i) {
        const CipherEntry& entry = entries[i];
        if (entry.algorithm != algorithm || entry.keySize != keySize) continue;
        std::call_once(once[i], [&] {
            const ErrorQueueMark mark;
            fetched[i] = EVP_CIPHER_fetch(entry.isLegacy ? CryptoLibrary::legacyContext() : nullptr, entry.name, nullptr);
        });
        return fetched[i];
    }
    return nullptr;
}

}  // namespace

void loadBulkCiphers() { (void)CryptoLibrary::legacyContext(); }

std::int64_t blockSize(BulkAlgorithm algorithm)
{
    switch (algorithm) {
    case BulkAlgorithm::rc4: return 1;
    case BulkAlgorithm::ideaCBC:
    case BulkAlgorithm::desCBC:
    case BulkAlgorithm::tripleDESCBC: return 8;
    default: return 16;
    }
}

void BulkDecryptor::Free::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

BulkDecryptor::BulkDecryptor(BulkAlgorithm algorithm, DataView key) : algorithm_(algorithm), context_(EVP_CIPHER_CTX_new())
{
    const EVP_CIPHER* const cipher = cipherFor(algorithm, key.size());
    isUsable_ = cipher && context_ && EVP_DecryptInit_ex2(context_.get(), cipher, key.data(), nullptr, nullptr) == 1;
    if (isUsable_) EVP_CIPHER_CTX_set_padding(context_.get(), 0);
    key_.assign(key.begin(), key.end());
}

bool BulkDecryptor::update(const ScatteredView& ciphertext, std::uint8_t* plaintext)
{
    return ciphertext.forEach([&](DataView part) {
        int written = 0;
        if (part.size() > INT_MAX) return false;
        const bool isTaken = EVP_DecryptUpdate(context_.get(), plaintext, &written, part.data(), static_cast<int>(part.size())) == 1;
        plaintext += written;
        return isTaken;
    });
}

bool BulkDecryptor::decryptBlocks(DataView iv, const ScatteredView& ciphertext, std::uint8_t* plaintext)
{
    const std::int64_t block = blockSize(algorithm_);
    if (!isUsable_ || iv.size() != block || ciphertext.size() % block != 0) return false;
    return EVP_DecryptInit_ex2(context_.get(), nullptr, nullptr, iv.data(), nullptr) == 1 && update(ciphertext, plaintext);
}

std::vector<BulkDecryptor::Place>::const_iterator BulkDecryptor::placeBefore(std::int64_t position) const
{
    const auto behind = std::ranges::upper_bound(places_, position, {}, &Place::position);
    return behind == places_.begin() ? places_.end() : std::prev(behind);
}

void BulkDecryptor::keepPlace()
{
    if (position_ < (places_.empty() ? 0 : places_.back().position) + betweenPlaces) return;
    Place place{position_, Context(EVP_CIPHER_CTX_new())};
    if (place.context && EVP_CIPHER_CTX_copy(place.context.get(), context_.get()) == 1) places_.push_back(std::move(place));
}

std::int64_t BulkDecryptor::costOfMoving(std::int64_t position) const
{
    const auto place = placeBefore(position);
    const std::int64_t fromPlace = position - (place == places_.end() ? 0 : place->position);
    return position >= position_ ? std::min(position - position_, fromPlace) : fromPlace;
}

bool BulkDecryptor::moveTo(std::int64_t position)
{
    const auto place = placeBefore(position);
    if (place != places_.end() && (position < position_ || place->position > position_)) {
        if (EVP_CIPHER_CTX_copy(context_.get(), place->context.get()) != 1) return false;
        position_ = place->position;
    } else if (position < position_) {
        if (EVP_DecryptInit_ex2(context_.get(), nullptr, key_.data(), nullptr, nullptr) != 1) return false;
        position_ = 0;
    }
    std::array<std::uint8_t, 4'096> skipped{};
    while (position_ < position) {
        const auto now = static_cast<int>(std::min<std::int64_t>(position - position_, skipped.size()));
        int written = 0;
        if (EVP_DecryptUpdate(context_.get(), skipped.data(), &written, skipped.data(), now) != 1) return false;
        position_ += now;
        keepPlace();
    }
    return true;
}

bool BulkDecryptor::decryptStream(std::int64_t position, const ScatteredView& ciphertext, std::uint8_t* plaintext)
{
    if (!isUsable_ || !moveTo(position) || !update(ciphertext, plaintext)) return false;
    position_ += ciphertext.size();
    keepPlace();
    return true;
}

void CCMOpener::Free::operator()(evp_cipher_ctx_st* context) const { EVP_CIPHER_CTX_free(context); }

CCMOpener::CCMOpener(DataView key, std::int64_t tagSize) : context_(EVP_CIPHER_CTX_new()), tagSize_(tagSize)
{
    static const EVP_CIPHER* const aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-CCM", nullptr);
    static const EVP_CIPHER* const aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-CCM", nullptr);
    const EVP_CIPHER* const cipher = key.size() == 16 ? aes128 : key.size() == 32 ? aes256 : nullptr;
    isUsable_ = cipher && context_ && EVP_DecryptInit_ex2(context_.get(), cipher, nullptr, nullptr, nullptr) == 1 &&
                EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_IVLEN, 12, nullptr) == 1 &&
                EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagSize), nullptr) == 1 &&
                EVP_DecryptInit_ex2(context_.get(), nullptr, key.data(), nullptr, nullptr) == 1;
}

// The mode wants to know the length before anything else, and the message in one piece.
bool CCMOpener::open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext)
{
    if (!isUsable_ || nonce.size() != 12 || tag.size() != tagSize_ || ciphertext.size() > INT_MAX || additionalData.size() > INT_MAX)
        return false;
    ciphertext.copy(std::span(plaintext, static_cast<std::size_t>(ciphertext.size())));
    auto* const tagBytes = const_cast<std::uint8_t*>(tag.data());
    int written = 0;
    const auto length = static_cast<int>(ciphertext.size());
    return EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagSize_), tagBytes) == 1 &&
           EVP_DecryptInit_ex2(context_.get(), nullptr, nullptr, nonce.data(), nullptr) == 1 &&
           EVP_DecryptUpdate(context_.get(), nullptr, &written, nullptr, length) == 1 &&
           (additionalData.isEmpty() || EVP_DecryptUpdate(context_.get(), nullptr, &written, additionalData.data(),
                                                          static_cast<int>(additionalData.size())) == 1) &&
           EVP_DecryptUpdate(context_.get(), plaintext, &written, plaintext, length) == 1;
}

namespace {

struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;
using Block = std::array<std::uint8_t, 16>;

Context begun(const EVP_CIPHER* cipher, DataView key, const std::uint8_t* iv, int encrypts)
{
    Context context(EVP_CIPHER_CTX_new());
    if (!cipher || !context || EVP_CipherInit_ex2(context.get(), cipher, key.data(), iv, encrypts, nullptr) != 1) return nullptr;
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    return context;
}

bool pass(EVP_CIPHER_CTX* context, std::uint8_t* to, DataView from)
{
    int written = 0;
    return from.isEmpty() || EVP_CipherUpdate(context, to, &written, from.data(), static_cast<int>(from.size())) == 1;
}

}  // namespace

// The library tells no hash by itself. Encrypting the ciphertext under another nonce, and again what comes out, gives the ciphertext
// back and its tag under that nonce, from which the hash follows.
std::optional<std::array<std::uint8_t, 12>> aesGCMNonce(DataView key, DataView additionalData, const ScatteredView& ciphertext, DataView tag)
{
    static const EVP_CIPHER* const gcm[] = {EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr), EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)};
    static const EVP_CIPHER* const ecb[] = {EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr), EVP_CIPHER_fetch(nullptr, "AES-256-ECB", nullptr)};
    const std::size_t index = key.size() == 32 ? 1 : 0;
    if ((key.size() != 16 && key.size() != 32) || tag.size() != 16 || ciphertext.size() > INT_MAX) return std::nullopt;
    constexpr Block other{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};  // a nonce of zeros and the first counter
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(ciphertext.size()));
    ciphertext.copy(bytes);
    Block hash{}, mask{}, block{};
    const Context masking = begun(gcm[index], key, other.data(), 1), hashing = begun(gcm[index], key, other.data(), 1);
    const Context encrypting = begun(ecb[index], key, nullptr, 1), decrypting = begun(ecb[index], key, nullptr, 0);
    int written = 0;
    if (!masking || !hashing || !encrypting || !decrypting || !pass(masking.get(), bytes.data(), bytes)) return std::nullopt;
    if (!additionalData.isEmpty() && EVP_CipherUpdate(hashing.get(), nullptr, &written, additionalData.data(),
                                                      static_cast<int>(additionalData.size())) != 1)
        return std::nullopt;
    if (!pass(hashing.get(), bytes.data(), bytes) || EVP_CipherFinal_ex(hashing.get(), block.data(), &written) != 1 ||
        EVP_CIPHER_CTX_ctrl(hashing.get(), EVP_CTRL_AEAD_GET_TAG, 16, hash.data()) != 1 || !pass(encrypting.get(), mask.data(), DataView(other)))
        return std::nullopt;
    for (std::size_t i = 0; i < block.size(); ++i) hash[i] ^= mask[i] ^ tag[static_cast<std::int64_t>(i)];
    if (!pass(decrypting.get(), block.data(), DataView(hash))) return std::nullopt;
    if (!std::equal(block.begin() + 12, block.end(), other.begin() + 12)) return std::nullopt;
    std::array<std::uint8_t, 12> nonce;
    std::copy_n(block.begin(), nonce.size(), nonce.begin());
    return nonce;
}

}  // namespace sealscope
