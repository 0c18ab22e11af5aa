// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"
#include "app/cli/text/TextTable.h"
#include "app/session/Exchanges.h"
#include "app/texts/TimeText.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// Appends what a row of the table shows of an exchange, in one piece that may wait until the row is printed.
void appendCells(std::string& cells, std::int64_t stream, const Exchange& exchange);

/// Prints exchanges as a good access log reads.
class ExchangeTable {
public:
    explicit ExchangeTable(const Terminal& terminal) : terminal_(terminal), table_(columns(), terminal) {}

    /// Appends the row of some cells.
    void append(std::string& text, std::string_view cells);

private:
    static std::vector<TextColumn> columns();

    Terminal terminal_;
    TextTable table_;
    TimeText time_;
    std::string clock_, url_;
    bool hasHeading_ = false;
};

}  // namespace sealscope::cli
