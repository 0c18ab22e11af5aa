// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"
#include "platform/Data.h"

#include <vector>

namespace sealscope {

/// A protocol buffers message without its schema: its fields by number, wire type and value, inner messages by dotted numbers.
struct ProtobufFields {
    ProtobufFields() = delete;
    /// Rows such as {"Field 1 (length-delimited)", "\"world\""}; a single row that says so when the bytes are no such message.
    static std::vector<DetailRow> rows(DataView message);
};

}  // namespace sealscope
