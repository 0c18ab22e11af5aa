// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <oneapi/tbb/task_group.h>
#include <optional>
#include <vector>

namespace sealscope {

/// Hands over the exchanges of a reader, while the next are being made on another processor where one is free. Used by one thread at a
/// time.
class ExchangesAhead {
public:
    explicit ExchangesAhead(std::unique_ptr<StreamExchangeReader> reader);
    /// Waits until nothing more is being made.
    ~ExchangesAhead();

    /// The time of the next one; nothing after the last. Throws what the reader threw where it should have been.
    std::optional<double> nextTime() const;
    /// The next one, which is there; it stays until this is called again.
    const StreamExchange& next();

    ExchangesAhead(const ExchangesAhead&) = delete;
    ExchangesAhead& operator=(const ExchangesAhead&) = delete;

private:
    // Enough that waiting for each other costs little, and no more, since fields may be long.
    static constexpr std::size_t madeAtOnce = 128;
    static constexpr std::size_t bytesAtOnce = 1 << 19;
    struct Batch {
        std::vector<StreamExchange> exchanges;  ///< their memory is used again
        std::vector<double> times;
        std::exception_ptr problem;  ///< behind those
    };

    void make(Batch& batch);
    void turnOver();

    std::unique_ptr<StreamExchangeReader> reader_;
    std::array<Batch, 2> batches_;
    std::size_t current_ = 0;  ///< which batch is handed over; the other is being made
    std::size_t next_ = 0;
    StreamExchange handedOver_;  ///< the last of a batch
    oneapi::tbb::task_group making_;
};

}  // namespace sealscope
