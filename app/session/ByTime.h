// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <queue>
#include <tuple>
#include <utility>
#include <vector>

namespace sealscope {

/// Hands lines of exchanges out in the order of their times, over streams that come in the order of their first packets: nothing of a
/// later stream can be earlier than its first packet. A line has a time, the number of its stream, and its position among those of it.
template <class Line> class ByTime {
public:
    void add(Line line) { waiting_.push(std::move(line)); }
    template <class Take> void handOutBefore(double time, const Take& take)
    {
        while (!waiting_.empty() && waiting_.top().time < time) {
            // A queue lends its top as a constant; what is taken from it is popped at once.
            auto line = std::move(const_cast<Line&>(waiting_.top()));
            waiting_.pop();
            if (!take(std::move(line))) return;
        }
    }

private:
    struct IsLater {
        bool operator()(const Line& a, const Line& b) const
        {
            return std::tie(a.time, a.stream, a.position) > std::tie(b.time, b.stream, b.position);
        }
    };
    std::priority_queue<Line, std::vector<Line>, IsLater> waiting_;
};

}  // namespace sealscope
