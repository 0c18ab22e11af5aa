// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace sealscope {

/// Writes times as the local clock showed them: "2023-11-14 22:13:20.250000". Keeps the minute it is in, since looking up
/// the time zone costs more than the rest of a row.
class TimeText {
public:
    static constexpr int dateWidth = 11;   ///< "2023-11-14 "
    static constexpr int clockWidth = 15;  ///< "22:13:20.250000"

    /// Appends the time of day, cut to microseconds. Seconds since 1970.
    void appendClock(std::string& text, double seconds);
    void appendDateAndClock(std::string& text, double seconds);

private:
    struct Split {
        std::int64_t second = 0;  ///< within the minute
        std::int64_t microseconds = 0;
    };
    /// Prepares the texts of the minute that holds a time.
    Split enterMinute(double seconds);
    void appendSeconds(std::string& text, Split split);

    std::int64_t minute_ = std::numeric_limits<std::int64_t>::min();
    std::string date_;   ///< "2023-11-14 "
    std::string clock_;  ///< "22:13:"
};

}  // namespace sealscope
