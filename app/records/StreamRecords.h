// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/export/StreamDecryptor.h"
#include "app/records/JSONLineWriter.h"
#include "app/records/Spill.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// One row of the list of streams.
struct StreamRow {
    StreamSummary summary;
    bool canInterpret = false;
    std::optional<StreamVerdict> verdict;  ///< only of streams that can be interpreted
};

/// The verdict as programs read it: "decrypted", "noHandshake", …
std::string_view verdictName(const TLSDecryptionOutcome& outcome);

// Each appends one line of NDJSON.

void appendRecord(std::string& text, const StreamRow& row);
void appendRecord(std::string& text, const OpenedStream& opened);
/// What an interpreter made of a stream; `spill` may take the text away between messages.
void appendRecord(std::string& text, std::int64_t stream, const StreamInterpretation& interpretation, const Spill& spill);

}  // namespace sealscope
