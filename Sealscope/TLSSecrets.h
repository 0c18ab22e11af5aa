// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace sealscope {

/// A dictionary from label and client random to a secret. Cheap to copy: copies share the secrets, which are wiped with
/// the last of them. Immutable; any thread may read it.
class TLSSecrets {
public:
    class Builder;

    TLSSecrets() = default;

    std::int64_t size() const;
    bool isEmpty() const { return size() == 0; }
    /// Whether both are copies of one dictionary.
    bool isSame(const TLSSecrets& other) const { return storage_ == other.storage_; }
    /// The secret under a label for a client random. It shares the dictionary's memory and outlives it.
    std::optional<Data> find(std::string_view label, DataView clientRandom) const;
    /// How many bytes that secret has.
    std::optional<std::int64_t> length(std::string_view label, DataView clientRandom) const;
    /// Every entry, in the order in which the secrets were put: label, client random, secret.
    void forEach(const std::function<void(std::string_view, DataView, DataView)>& visit) const;

private:
    class Storage;
    explicit TLSSecrets(std::shared_ptr<const Storage> storage) : storage_(std::move(storage)) {}
    std::shared_ptr<const Storage> storage_;
};

/// Collects secrets. Used by one thread.
class TLSSecrets::Builder {
public:
    /// `expectedSecrets` only saves time.
    explicit Builder(std::int64_t expectedSecrets);
    /// A secret that is there already under the same label and client random is replaced.
    void put(std::string_view label, DataView clientRandom, DataView secret);
    /// What was collected; the builder is empty afterwards.
    TLSSecrets take() &&;

private:
    std::shared_ptr<Storage> storage_;
};

}  // namespace sealscope
