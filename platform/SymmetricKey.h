// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"

#include <ostream>
#include <utility>

namespace sealscope SEALSCOPE_API {

/// A key of any length. Wipes itself, is compared in constant time, and prints as its length alone.
class SymmetricKey {
public:
    explicit SymmetricKey(DataView bytes) : bytes_(bytes.begin(), bytes.end()) {}
    explicit SymmetricKey(SecretBytes bytes) : bytes_(std::move(bytes)) {}

    DataView bytes() const { return viewOf(bytes_); }
    std::int64_t size() const { return static_cast<std::int64_t>(bytes_.size()); }

    friend bool operator==(const SymmetricKey& a, const SymmetricKey& b);
    friend std::ostream& operator<<(std::ostream& stream, const SymmetricKey& key);

private:
    SecretBytes bytes_;
};

}  // namespace sealscope SEALSCOPE_API
