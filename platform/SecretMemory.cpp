// SPDX-License-Identifier: Apache-2.0
#include "platform/SecretMemory.h"

#include <openssl/crypto.h>

namespace sealscope {

void wipe(void* bytes, std::size_t size) { OPENSSL_cleanse(bytes, size); }

}  // namespace sealscope
