// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/export/Objects.h"
#include "app/session/Exchanges.h"

#include <cstdint>
#include <string>

namespace sealscope {

/// A stream whose exchanges are told.
struct ExchangeStream {
    std::int64_t number = 0;
    TCPStreamKey::Endpoint client;
    TCPStreamKey::Endpoint server;
};

/// The protocol that an exchange is of, as its messages say; empty when they do not.
std::string protocolOf(const Exchange& exchange);

// Each appends one line of NDJSON.

void appendRecord(std::string& text, const ExchangeStream& stream, const Exchange& exchange);
void appendRecord(std::string& text, const SavedObject& object);

}  // namespace sealscope
