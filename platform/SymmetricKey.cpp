// SPDX-License-Identifier: Apache-2.0
#include "platform/SymmetricKey.h"

#include <openssl/crypto.h>

namespace sealscope {

bool operator==(const SymmetricKey& a, const SymmetricKey& b)
{
    return a.size() == b.size() && CRYPTO_memcmp(a.bytes_.data(), b.bytes_.data(), a.bytes_.size()) == 0;
}

std::ostream& operator<<(std::ostream& stream, const SymmetricKey& key) { return stream << "key of " << key.size() << " bytes"; }

}  // namespace sealscope
