// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/PacketDecoder.h"
#include "app/texts/SentenceReader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sealscope {

/// What the packets of a capture were that could not be read, as sentences for the user.
struct DecoderSentences {
    std::vector<std::string> unknownLinkTypes;
    std::vector<std::string> losses;  ///< damaged packets and incomplete datagrams
    /// Whether there was no packet of a known link type, but others.
    bool nothingWasReadable = false;
};

/// `files` are the capture's, as the user named them; `packets` counts what was read.
DecoderSentences decoderSentences(const std::vector<std::string>& files, const DecoderNotes& notes, std::int64_t packets,
                                  const SentenceReader& reader = {});

}  // namespace sealscope
