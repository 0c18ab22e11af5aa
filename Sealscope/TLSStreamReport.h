// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <array>
#include <string_view>

namespace sealscope {

/// Says what is known of a stream's decryption beyond the verdict. Stateless; any thread may call any operation.
struct TLSStreamReport {
    TLSStreamReport() = delete;

    /// The facts about a stream, with the secrets of a key log. `walk` opens both directions to their ends.
    static TLSDecryptionReport report(const TCPStream& stream, const TLSKeyLog& keyLog, bool walk);

    /// The labels that TLS stacks write key log lines under.
    static constexpr std::array<std::string_view, 10> knownLabels{
        "CLIENT_RANDOM",
        "CLIENT_EARLY_TRAFFIC_SECRET",
        "CLIENT_HANDSHAKE_TRAFFIC_SECRET",
        "SERVER_HANDSHAKE_TRAFFIC_SECRET",
        "CLIENT_TRAFFIC_SECRET_0",
        "SERVER_TRAFFIC_SECRET_0",
        "EARLY_EXPORTER_SECRET",
        "EXPORTER_SECRET",
        "ECH_SECRET",
        "ECH_CONFIG",
    };
};

}  // namespace sealscope
