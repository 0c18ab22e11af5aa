// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELValue.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// A column's filter as its plug-in declares it: a key, an operator and `$value` for the user's text, as in
/// "tlsServerName CONTAINS[c] $value". Any thread may ask it.
class ColumnPredicate {
public:
    /// Nothing for a format that is not of this form.
    static std::optional<ColumnPredicate> parse(std::string_view format);

    /// Of the value that it is about.
    const std::string& key() const { return key_; }
    /// The same predicate with the user's text.
    ColumnPredicate with(std::string_view text) const;
    /// Whether a value passes; an absent one does not, except where it shall differ.
    bool accepts(const std::optional<VELValue>& value) const;

private:
    enum class Operator : std::uint8_t { contains, beginsWith, endsWith, equals, differs, less, lessOrEqual, greater, greaterOrEqual };
    ColumnPredicate() = default;
    std::string folded(std::string_view text) const;
    bool acceptsNumber(double value) const;

    std::string key_;
    Operator operator_ = Operator::contains;
    bool ignoresCase_ = false;
    bool ignoresMarks_ = false;  ///< accents and the like
    std::string text_;           ///< folded
    std::optional<double> number_;
};

}  // namespace sealscope
