// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/records/JSONLineWriter.h"
#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

std::string_view directionName(TCPSegment::Direction direction);

/// Whether a message is written with its body, or without the member.
enum class BodyMember : std::uint8_t { written, leftOut };

/// What a message's rows cannot say before its body was decoded: why that stopped short of its end. Decodes the body, once, where
/// nobody has asked for its length before.
std::optional<DetailRow> decodingRow(const StreamMessage& message);

/// Writes the members of a message into an object that was begun: those of every message, and its attributes as members of
/// "attributes".
void writeMembers(JSONLineWriter& json, const StreamMessage& message, BodyMember body);

/// Appends a message with its body as one line of NDJSON.
void appendRecord(std::string& text, const StreamMessage& message);

}  // namespace sealscope
