// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/export/StreamDecryptor.h"
#include "app/records/JSONLineWriter.h"
#include "app/records/Spill.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// One row of the list of streams.
struct StreamRow {
    StreamSummary summary;
    bool canInterpret = false;
    std::optional<StreamVerdict> verdict;  ///< only of streams that can be interpreted
    std::vector<StreamFact> facts;         ///< of plug-ins
};

/// The row of a stream, with everything that NDJSON has of it.
StreamRow streamRow(const Session& session, const StreamVerdicts& verdicts, std::int64_t number);

/// Hands a stream's messages over part by part until the visitor gives false. Asked once more it begins again.
using StreamTeller = std::function<void(const StreamPartVisitor&)>;

/// A row's verdict as people read it, as `verdictText` has it; also where there is none.
std::string_view verdictText(const StreamRow& row, const SentenceReader& reader = {});
/// The verdict as programs read it: "decrypted", "noHandshake", …
std::string_view verdictName(const TLSDecryptionOutcome& outcome);

// Each appends one line of NDJSON.

void appendRecord(std::string& text, const StreamRow& row);
void appendRecord(std::string& text, const OpenedStream& opened);
/// The messages of a stream and their pairings; `spill` may take the text away between them. What `tell` throws goes on when the line is
/// whole.
void appendRecord(std::string& text, std::int64_t stream, const StreamTeller& tell, const Spill& spill);

}  // namespace sealscope
