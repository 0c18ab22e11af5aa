// SPDX-License-Identifier: Apache-2.0
#include "platform/SecretMemory.h"

#include <cstring>

namespace sealscope {

void wipe(void* bytes, std::size_t size) { explicit_bzero(bytes, size); }

}  // namespace sealscope
