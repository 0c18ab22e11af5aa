// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/texts/SentenceReader.h"

#include <string>
#include <string_view>

namespace sealscope {
struct StreamSummary;
struct TLSDecryptionReport;

struct KeyLogProblem;
struct StreamVerdict;

/// A verdict as people read it: "no handshake"; "partly decrypted" where some of what could be opened did not. In words that live
/// as long as the program.
std::string_view verdictText(const StreamVerdict& verdict, const SentenceReader& reader = {});

/// One sentence on why a stream does not decrypt and what to do about it, or on how much of it opened.
std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary, const SentenceReader& reader = {});

/// What is the matter with a key log, as a clause that begins with its path: "keys.txt: is empty".
std::string problemText(const KeyLogProblem& problem, const SentenceReader& reader = {});

/// Of a decrypted stream's directions those that did not open to their end, and why; empty when all did.
std::string incompleteText(const TLSDecryptionReport& report);

}  // namespace sealscope
