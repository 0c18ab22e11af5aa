// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <openssl/err.h>

namespace sealscope {

/// Takes back what libcrypto puts on the thread's error queue meanwhile: that bytes are no certificate, or that there is no such cipher, is
/// no error here, and whoever uses libcrypto on the same thread next would take it for one of its own.
class ErrorQueueMark {
public:
    ErrorQueueMark() { ERR_set_mark(); }
    ~ErrorQueueMark() { ERR_pop_to_mark(); }
    ErrorQueueMark(const ErrorQueueMark&) = delete;
    ErrorQueueMark& operator=(const ErrorQueueMark&) = delete;
};

}  // namespace sealscope
