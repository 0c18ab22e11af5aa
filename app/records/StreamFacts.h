// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// What stands below a conversation's heading: "example.org, TLS 1.3, TLS_AES_128_GCM_SHA256, 517 bytes sent, 4096 received". Without a
/// report it begins with the name of the interpreter that read the stream.
std::string streamFacts(const StreamSummary& summary, std::string_view interpreter, const std::optional<TLSDecryptionReport>& report,
                        const SentenceReader& reader = {});

}  // namespace sealscope
