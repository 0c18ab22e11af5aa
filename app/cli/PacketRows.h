// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/EndpointTexts.h"
#include "app/cli/PacketAnalyzers.h"
#include "app/cli/TextTable.h"
#include "app/cli/TimeText.h"
#include "host/VELModels/TCPStream.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sealscope::cli {

/// A packet whose TCP payload makes an analyzer.
struct PacketRow {
    std::int64_t number = 0;
    double time = 0;  ///< seconds since 1970
    TCPStreamKey::Endpoint source;
    TCPStreamKey::Endpoint destination;
    DataView payload;
    PacketMatch match;
};

/// Writes rows of the packet list in one form. Not thread-safe.
class PacketRowFormat {
public:
    virtual ~PacketRowFormat() = default;
    /// Rows that will come first, to choose the layout by.
    virtual void prepare(std::span<const PacketRow> rows) = 0;
    virtual void append(std::string& text, const PacketRow& row) = 0;

    /// As `packets --json` prints them.
    static std::unique_ptr<PacketRowFormat> json();
    /// As a table for people.
    static std::unique_ptr<PacketRowFormat> table(const PacketAnalyzers& analyzers, const Terminal& terminal);
};

}  // namespace sealscope::cli
