// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/TextTable.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// A table of streams that ends in a verdict and a sentence on it. The sentence follows the row in lines of its own on a
/// terminal, whose width it would not fit, and is the last column elsewhere.
class VerdictTable {
public:
    VerdictTable(std::vector<TextColumn> columns, const Terminal& terminal);

    /// Lets the widths take a row into account, before the first one is written.
    void measure(std::span<const std::string_view> cells);
    void append(std::string& text, std::span<const std::string_view> cells, std::string_view verdict, std::string_view sentence);

private:
    std::span<const std::string_view> row(std::span<const std::string_view> cells, std::string_view verdict, std::string_view sentence);
    void appendWrapped(std::string& text, std::string_view sentence) const;

    Terminal terminal_;
    TextTable table_;
    std::vector<std::string_view> cells_;
    bool hasHeading_ = false;
};

}  // namespace sealscope::cli
