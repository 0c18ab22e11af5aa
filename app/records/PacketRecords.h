// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/records/EndpointTexts.h"
#include "app/session/PacketRowReader.h"

#include <string>

namespace sealscope {

/// Writes rows of the packet list as NDJSON. Not thread-safe.
class PacketRecords {
public:
    /// Appends a line.
    void append(std::string& text, const PacketRow& row);

private:
    EndpointTexts endpoints_;
};

}  // namespace sealscope
