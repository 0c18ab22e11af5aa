// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"
#include "app/cli/text/TextTable.h"
#include "app/texts/TimeText.h"
#include "app/session/Exchanges.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace sealscope::cli {

/// What a row of the table shows, as texts.
struct ExchangeCells {
    static constexpr std::size_t count = 8;
    double time = 0;
    std::array<std::string, count> texts;  ///< the first, the clock, is made when the row is printed
    bool isFailure = false;                ///< of the request: status 400 or more, or no reply
};
ExchangeCells cellsOf(std::int64_t stream, const Exchange& exchange);

/// Prints exchanges as a good access log reads.
class ExchangeTable {
public:
    explicit ExchangeTable(const Terminal& terminal) : terminal_(terminal), table_(columns(), terminal) {}

    void append(std::string& text, ExchangeCells& cells);

private:
    static std::vector<TextColumn> columns();

    Terminal terminal_;
    TextTable table_;
    TimeText time_;
    bool hasHeading_ = false;
};

}  // namespace sealscope::cli
