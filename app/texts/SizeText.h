// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/texts/SentenceReader.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {

/// A number of bytes as people read it, in powers of 1000: "517 B", "5.2 kB", "1.3 GB".
std::string sizeText(std::int64_t bytes, const SentenceReader& reader = {});

/// A duration as people read it: "0.4 ms", "31 ms", "1.25 s", "3:07 min".
std::string durationText(double seconds, const SentenceReader& reader = {});

/// A text of at most so many characters: what is too much is left out in the middle and told by "…". Both ends of a URL say more
/// than its middle.
std::string shortenedInTheMiddle(std::string_view text, int columns);

}  // namespace sealscope
