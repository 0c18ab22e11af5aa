// SPDX-License-Identifier: Apache-2.0
#include "app/session/ExchangesAhead.h"

#include "app/session/Exchanges.h"

#include <utility>

namespace sealscope {

ExchangesAhead::ExchangesAhead(std::unique_ptr<StreamExchangeReader> reader) : reader_(std::move(reader))
{
    for (Batch& batch : batches_) batch.exchanges.resize(madeAtOnce);
    make(batches_[current_]);
    making_.run([this] { make(batches_[1 - current_]); });
}

ExchangesAhead::~ExchangesAhead() { making_.wait(); }

void ExchangesAhead::make(Batch& batch)
{
    batch.times.clear();
    try {
        std::size_t bytes = 0;
        while (batch.times.size() < madeAtOnce && bytes < bytesAtOnce) {
            const auto time = reader_->nextTime();
            if (!time) break;
            StreamExchange& exchange = batch.exchanges[batch.times.size()];
            reader_->next(exchange);
            batch.times.push_back(*time);
            bytes += heldBytes(exchange);
        }
    } catch (...) {
        batch.problem = std::current_exception();
    }
}

std::optional<double> ExchangesAhead::nextTime() const
{
    const Batch& batch = batches_[current_];
    if (next_ < batch.times.size()) return batch.times[next_];
    if (batch.problem) std::rethrow_exception(batch.problem);
    return std::nullopt;
}

const StreamExchange& ExchangesAhead::next()
{
    Batch& batch = batches_[current_];
    StreamExchange& exchange = batch.exchanges[next_++];
    if (next_ < batch.times.size() || batch.problem) return exchange;
    std::swap(handedOver_, exchange);
    turnOver();
    return handedOver_;
}

void ExchangesAhead::turnOver()
{
    making_.wait();
    current_ = 1 - current_;
    next_ = 0;
    if (!batches_[current_].times.empty()) making_.run([this, free = 1 - current_] { make(batches_[free]); });
}

}  // namespace sealscope
