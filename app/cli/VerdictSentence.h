// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace sealscope {
struct StreamSummary;
struct TLSDecryptionReport;
}  // namespace sealscope

namespace sealscope::cli {

struct StreamVerdict;

/// One sentence on why a stream does not decrypt and what to do about it, or on how much of it opened.
std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary);

/// Of a decrypted stream's directions those that did not open to their end, and why; empty when all did.
std::string incompleteText(const TLSDecryptionReport& report);

}  // namespace sealscope::cli
