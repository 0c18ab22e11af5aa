// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/TextTable.h"
#include "app/records/EndpointTexts.h"
#include "app/session/PacketAnalyzers.h"
#include "app/session/PacketRowReader.h"
#include "app/texts/TimeText.h"
#include "host/VELModels/TCPStream.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sealscope::cli {

/// Writes rows of the packet list in one form. Not thread-safe.
class PacketRowFormat {
public:
    virtual ~PacketRowFormat() = default;
    /// Rows that will come first, to choose the layout by.
    virtual void prepare(std::span<const PacketRow> rows) = 0;
    virtual void append(std::string& text, const PacketRow& row) = 0;

    /// What the next rows look like: columns widen, and the heading stands before the first row only.
    struct Layout {
        TextTable::Layout table;
        bool hasHeading = false;
        bool operator==(const Layout&) const = default;
    };
    virtual const Layout& layout() const = 0;
    virtual void adopt(const Layout& layout) = 0;
    /// Another one, for another thread.
    virtual std::unique_ptr<PacketRowFormat> clone() const = 0;

    /// As `packets --json` prints them.
    static std::unique_ptr<PacketRowFormat> json();
    /// As a table for people.
    static std::unique_ptr<PacketRowFormat> table(const PacketAnalyzers& analyzers, const Terminal& terminal);
};

}  // namespace sealscope::cli
