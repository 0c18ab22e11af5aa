// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/records/JSONLineWriter.h"
#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {

std::string_view directionName(TCPSegment::Direction direction);

/// Whether a message is written with its body, or without the member.
enum class BodyMember : std::uint8_t { written, leftOut };

/// Writes the members of a message into an object that was begun: those of every message, and its attributes as members of
/// "attributes".
void writeMembers(JSONLineWriter& json, const StreamMessage& message, BodyMember body);

/// Appends a message with its body as one line of NDJSON.
void appendRecord(std::string& text, const StreamMessage& message);

}  // namespace sealscope
