// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"
#include "host/VELModels/StreamMessage.h"

#include <memory>

namespace sealscope {

/// How what an interpreter makes of a plaintext is told from what was captured.
struct TLSDecryptedMessages {
    TLSDecryptedMessages() = delete;

    static const DetailRow& row();
    /// A message that was decrypted, with the row in front of its own.
    static void mark(StreamMessage& message);
    /// The exchanges of a plaintext, marked; none where nobody reads it and `inner` is null. The context that they were asked with
    /// has the row in front.
    static std::unique_ptr<StreamExchangeReader> exchanges(std::unique_ptr<StreamExchangeReader> inner);
};

}  // namespace sealscope
