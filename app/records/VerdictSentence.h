// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {
struct StreamSummary;
struct TLSDecryptionReport;

struct KeyLogProblem;
struct StreamVerdict;

/// A verdict as people read it: "no handshake"; "partly decrypted" where some of what could be opened did not.
std::string_view verdictText(const StreamVerdict& verdict);

/// Where a sentence is read: what to do about a stream is done with options here and with buttons there.
enum class SentenceReader : std::uint8_t { commandLine, window };

/// One sentence on why a stream does not decrypt and what to do about it, or on how much of it opened.
std::string verdictSentence(const StreamVerdict& verdict, const StreamSummary& summary, SentenceReader reader = SentenceReader::commandLine);

/// What is the matter with a key log, as a clause that begins with its path: "keys.txt: is empty".
std::string problemText(const KeyLogProblem& problem);
/// The same without the path.
std::string problemReason(const KeyLogProblem& problem);

/// Of a decrypted stream's directions those that did not open to their end, and why; empty when all did.
std::string incompleteText(const TLSDecryptionReport& report);

}  // namespace sealscope
