// SPDX-License-Identifier: Apache-2.0
#include "app/records/StreamFacts.h"

namespace sealscope {

std::string streamFacts(const StreamSummary& summary, std::string_view interpreter, const std::optional<TLSDecryptionReport>& report,
                        const SentenceReader& reader)
{
    const std::string comma(reader.word(", "));
    std::string facts(interpreter);
    if (report) {
        if (report->version) facts = report->versionName;
        if (report->cipherSuite) facts += comma + report->cipherSuiteName;
        if (report->serverName && !report->serverName->empty()) facts = *report->serverName + comma + facts;
    }
    facts += comma + reader.say("{} bytes sent, {} received", summary.clientBytes, summary.serverBytes);
    if (summary.missingBytes > 0) facts += comma + reader.say("{} missing", summary.missingBytes);
    if (summary.contradictingBytes > 0) facts += comma + reader.say("{} retransmitted otherwise", summary.contradictingBytes);
    if (summary.restarts > 0) facts += comma + reader.say("{} jumps in the sequence numbers", summary.restarts);
    return facts;
}

}  // namespace sealscope
