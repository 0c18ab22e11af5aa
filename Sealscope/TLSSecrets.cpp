// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSSecrets.h"

#include "platform/SecretMemory.h"

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <absl/types/span.h>
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

// A key log of a million lines is ordinary on a busy server, so an entry costs little more than its bytes: label, client
// random and secret lie one behind another in large blocks, and the hash table holds a pointer an entry.

namespace sealscope {

namespace {

/// Stands in front of an entry's bytes: label, client random, secret.
struct StoredSecret {
    std::int64_t labelLength = 0;
    std::int64_t randomLength = 0;
    std::int64_t secretLength = 0;
    bool isReplaced = false;  ///< by a later entry for its key

    std::size_t size() const { return sizeof(StoredSecret) + static_cast<std::size_t>(labelLength + randomLength + secretLength); }
    const std::uint8_t* bytes() const { return reinterpret_cast<const std::uint8_t*>(this + 1); }
    DataView label() const { return {bytes(), labelLength}; }
    DataView clientRandom() const { return {bytes() + labelLength, randomLength}; }
    DataView secret() const { return {bytes() + labelLength + randomLength, secretLength}; }
};

struct Key {
    std::string_view label;
    std::string_view clientRandom;
    bool operator==(const Key&) const = default;
};

Key keyOf(const Key& key) { return key; }
Key keyOf(const StoredSecret* entry) { return {entry->label().text(), entry->clientRandom().text()}; }

struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(const auto& item) const
    {
        const Key key = keyOf(item);
        // As runs of bytes: of texts it would take the standard library's hash, which is slower.
        return absl::HashOf(absl::MakeConstSpan(key.label), absl::MakeConstSpan(key.clientRandom));
    }
};

struct KeyEqual {
    using is_transparent = void;
    bool operator()(const auto& a, const auto& b) const { return keyOf(a) == keyOf(b); }
};

/// Memory for secrets that is given out front to back and let go as a whole.
class Blocks {
public:
    Blocks() = default;
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    ~Blocks()
    {
        for (const Block& block : blocks_) releaseSecret(block.words, block.size * sizeof(Word));
    }

    void* allocate(std::size_t size)
    {
        const std::size_t words = wordsFor(size);
        if (blocks_.empty() || blocks_.back().size - blocks_.back().used < words) addBlock(words);
        Block& block = blocks_.back();
        return block.words + std::exchange(block.used, block.used + words);
    }

    /// What was given out, front to back. `visit` gets a piece and returns its size.
    template <class Visit> void forEach(Visit visit) const
    {
        for (const Block& block : blocks_)
            for (std::size_t at = 0; at < block.used;) at += wordsFor(visit(block.words + at));
    }

private:
    using Word = std::uint64_t;
    struct Block {
        Word* words = nullptr;
        std::size_t size = 0;
        std::size_t used = 0;
    };

    static std::size_t wordsFor(std::size_t size) { return (size + sizeof(Word) - 1) / sizeof(Word); }

    /// Blocks grow from 4 KiB to 1 MiB, so that a small key log stays small and a large one wastes no more than a block.
    void addBlock(std::size_t words)
    {
        const std::size_t grown = blocks_.empty() ? 512 : std::min<std::size_t>(blocks_.back().size * 2, 131'072);
        const std::size_t size = std::max(words, grown);
        blocks_.reserve(blocks_.size() + 1);
        blocks_.push_back({.words = static_cast<Word*>(allocateSecret(size * sizeof(Word))), .size = size});
    }

    std::vector<Block> blocks_;
};

}  // namespace

class TLSSecrets::Storage {
public:
    void put(const Key& key, DataView secret)
    {
        bool isNew = false;
        const auto found = entries.lazy_emplace(key, [&](const auto& construct) {
            construct(makeEntry(key, secret));
            isNew = true;
        });
        if (isNew || (*found)->secret() == secret) return;
        (*found)->isReplaced = true;
        entries.erase(found);
        entries.insert(makeEntry(key, secret));
    }

    void forEach(const std::function<void(std::string_view, DataView, DataView)>& visit) const
    {
        blocks_.forEach([&](const void* memory) {
            const auto* const entry = static_cast<const StoredSecret*>(memory);
            if (!entry->isReplaced) visit(entry->label().text(), entry->clientRandom(), entry->secret());
            return entry->size();
        });
    }

    const StoredSecret* find(const Key& key) const
    {
        const auto found = entries.find(key);
        return found == entries.end() ? nullptr : *found;
    }

    absl::flat_hash_set<StoredSecret*, KeyHash, KeyEqual> entries;

private:
    StoredSecret* makeEntry(const Key& key, DataView secret)
    {
        const DataView label(key.label);
        const DataView clientRandom(key.clientRandom);
        const StoredSecret header{label.size(), clientRandom.size(), secret.size()};
        void* const memory = blocks_.allocate(header.size());
        auto* bytes = static_cast<std::uint8_t*>(memory) + sizeof(StoredSecret);
        for (const DataView part : {label, clientRandom, secret}) bytes = std::copy(part.begin(), part.end(), bytes);
        return new (memory) StoredSecret(header);
    }

    Blocks blocks_;
};

std::int64_t TLSSecrets::size() const { return storage_ ? static_cast<std::int64_t>(storage_->entries.size()) : 0; }

std::optional<Data> TLSSecrets::find(std::string_view label, DataView clientRandom) const
{
    const StoredSecret* const entry = storage_ ? storage_->find({label, clientRandom.text()}) : nullptr;
    return entry ? std::optional(Data(storage_, entry->secret())) : std::nullopt;
}

std::optional<std::int64_t> TLSSecrets::length(std::string_view label, DataView clientRandom) const
{
    const StoredSecret* const entry = storage_ ? storage_->find({label, clientRandom.text()}) : nullptr;
    return entry ? std::optional(entry->secretLength) : std::nullopt;
}

void TLSSecrets::forEach(const std::function<void(std::string_view, DataView, DataView)>& visit) const
{
    if (storage_) storage_->forEach(visit);
}

TLSSecrets::Builder::Builder(std::int64_t expectedSecrets) : storage_(std::make_shared<Storage>())
{
    storage_->entries.reserve(static_cast<std::size_t>(expectedSecrets));
}

void TLSSecrets::Builder::put(std::string_view label, DataView clientRandom, DataView secret)
{
    storage_->put({label, clientRandom.text()}, secret);
}

TLSSecrets TLSSecrets::Builder::take() &&
{
    if (storage_->entries.empty()) storage_.reset();
    return TLSSecrets(std::exchange(storage_, std::make_shared<Storage>()));
}

}  // namespace sealscope
