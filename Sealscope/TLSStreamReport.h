// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

namespace sealscope {

/// Says what is known of a stream's decryption beyond the verdict. Stateless; any thread may call any operation.
struct TLSStreamReport {
    TLSStreamReport() = delete;

    /// The facts about a stream, with the secrets of a key log.
    static TLSDecryptionReport report(const TCPStream& stream, const TLSKeyLog& keyLog, ReportDepth depth);
};

}  // namespace sealscope
