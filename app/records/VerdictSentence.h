// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace sealscope {
struct StreamSummary;
struct TLSDecryptionReport;

struct KeyLogProblem;
struct StreamVerdict;

/// One sentence on why a stream does not decrypt and what to do about it, or on how much of it opened.
std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary);

/// What is the matter with a key log, as a clause that begins with its path: "keys.txt: is empty".
std::string problemText(const KeyLogProblem& problem);
/// The same without the path.
std::string problemReason(const KeyLogProblem& problem);

/// Of a decrypted stream's directions those that did not open to their end, and why; empty when all did.
std::string incompleteText(const TLSDecryptionReport& report);

}  // namespace sealscope
