// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/texts/SentenceReader.h"

#include <cstdint>
#include <string>

namespace sealscope {

/// Why a file cannot be read, or not any further.
struct ReadError {
    std::string reason;  ///< lower case, without the file's name
};

/// What is wrong with a capture, where, and how much was read before it. The sentence is made by `text()`.
struct CaptureError {
    std::string file;                ///< as the user named it; "-" is standard input; empty when no file is at fault
    std::string reason;              ///< lower case, without the file's name: "block at byte 88104: length 12 is too short …"
    std::int64_t packetsBefore = 0;  ///< packets of this file that were read before the damage; negative when it has no place
    bool couldNotOpen = false;       ///< nothing of the file could be read
    /// Damaged places that were passed over, of which this is the first; 0 when reading ended here.
    std::int64_t passedOver = 0;

    /// "office.pcapng: block at byte 88104: …; 411 packets before it were read"
    std::string text(const SentenceReader& reader = {}) const;
};

}  // namespace sealscope
