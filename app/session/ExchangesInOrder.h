// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Exchanges.h"
#include "app/session/Session.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// What is made of exchanges, and who takes it.
struct ExchangeLines {
    /// Appends what stands for an exchange, text or other bytes, until its turn comes. Called on several threads.
    std::function<void(std::string& line, const TCPStream& stream, const Exchange& exchange)> append;
    /// Takes the next; ends everything by giving false. Called on one thread at a time.
    std::function<bool(std::string_view line)> take;
    /// How many are taken.
    std::int64_t most = std::numeric_limits<std::int64_t>::max();
    std::stop_token stop = {};
};

/// Hands over the exchanges of some streams, which are given in ascending order, by their times. What waits for streams that began
/// earlier does so in a temporary file where it is more than some megabytes; where that becomes too large, exchanges of later streams
/// come behind those that waited. False when there are more than `most`: those of later connections may then be missing.
bool exchangesInOrder(const Session& session, const std::vector<std::int64_t>& streams, const ExchangeLines& lines);

}  // namespace sealscope
