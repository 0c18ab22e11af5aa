// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <stop_token>
#include <vector>

namespace sealscope {

/// The secrets that some connections need, for a capture that shall carry them.
struct CollectedSecrets {
    SecretText keyLog;             ///< in the SSLKEYLOGFILE format
    std::int64_t connections = 0;  ///< of which there is a secret
};

CollectedSecrets collectSecrets(const Session& session, const std::vector<std::int64_t>& streams, const std::stop_token& stop);

}  // namespace sealscope
