// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamFacts.h"

namespace sealscope {

/// Tells what hellos and certificates say of a stream: "ja3", "ja3s", "ja4" and "certificate", the last of the server's own one, under
/// encryption where the session's probe can open it. Any thread may ask.
class ReachDescriber final : public StreamDescribing {
public:
    std::vector<StreamFact> facts(const TCPStream& stream,
                                  std::span<const std::shared_ptr<const TLSStreamDecryptionProbing>> probes) const override;
};

}  // namespace sealscope
