// SPDX-License-Identifier: Apache-2.0
#include "app/texts/TimeText.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fmt/format.h>

namespace sealscope {

TimeText::Split TimeText::enterMinute(double seconds)
{
    // Further away no calendar goes, and a number of microseconds would not fit.
    constexpr double furthest = 9e12;
    const auto microseconds = std::llround(std::clamp(std::isfinite(seconds) ? seconds : 0, -furthest, furthest) * 1e6);
    constexpr std::int64_t perMinute = 60'000'000;
    const std::int64_t within = (microseconds % perMinute + perMinute) % perMinute;
    const std::int64_t minute = (microseconds - within) / perMinute;
    if (minute != minute_) {
        minute_ = minute;
        const std::time_t start = minute * 60;
        std::tm local{};
        if (!localtime_r(&start, &local)) gmtime_r(&start, &local);
        date_ = fmt::format("{:04}-{:02}-{:02} ", local.tm_year + std::int64_t{1900}, local.tm_mon + 1, local.tm_mday);
        clock_ = fmt::format("{:02}:{:02}:", local.tm_hour, local.tm_min);
    }
    return {within / 1'000'000, within % 1'000'000};
}

void TimeText::appendSeconds(std::string& text, Split split)
{
    char digits[] = "00.000000";
    digits[0] = static_cast<char>('0' + split.second / 10);
    digits[1] = static_cast<char>('0' + split.second % 10);
    for (int place = 8; place > 2; --place, split.microseconds /= 10) digits[place] = static_cast<char>('0' + split.microseconds % 10);
    text.append(digits, 9);
}

void TimeText::appendClock(std::string& text, double seconds)
{
    const Split split = enterMinute(seconds);
    text += clock_;
    appendSeconds(text, split);
}

void TimeText::appendDateAndClock(std::string& text, double seconds)
{
    const Split split = enterMinute(seconds);
    text += date_;
    text += clock_;
    appendSeconds(text, split);
}

}  // namespace sealscope
