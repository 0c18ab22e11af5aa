// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Exchanges.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sealscope {

/// What a list shows of an exchange.
struct ExchangeSummary {
    double time = 0;                 ///< of the first byte, seconds since 1970
    std::optional<double> wait;      ///< seconds from the first byte to the reply's first
    std::optional<double> duration;  ///< seconds to the reply's last byte
    std::string protocol;
    std::string method;
    std::string url;  ///< or what else there is to say of the request
    std::optional<std::int64_t> status;
    std::string mediaType;             ///< of the reply, without parameters
    std::optional<std::int64_t> size;  ///< of the reply's body, decoded, in bytes
    bool hasReply = false;
    bool isFailure = false;  ///< no reply, or one that says so
};

/// Makes the reply's body, where its size is not known otherwise.
ExchangeSummary summaryOf(const Exchange& exchange);

}  // namespace sealscope
