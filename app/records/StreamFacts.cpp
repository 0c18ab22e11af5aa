// SPDX-License-Identifier: Apache-2.0
#include "app/records/StreamFacts.h"

#include <fmt/format.h>

namespace sealscope {

std::string streamFacts(const StreamSummary& summary, std::string_view interpreter, const std::optional<TLSDecryptionReport>& report)
{
    std::string facts(interpreter);
    if (report) {
        if (report->version) facts = report->versionName;
        if (report->cipherSuite) facts += ", " + report->cipherSuiteName;
        if (report->serverName && !report->serverName->empty()) facts = *report->serverName + ", " + facts;
    }
    facts += fmt::format(", {} bytes sent, {} received", summary.clientBytes, summary.serverBytes);
    if (summary.missingBytes > 0) facts += fmt::format(", {} missing", summary.missingBytes);
    if (summary.contradictingBytes > 0) facts += fmt::format(", {} retransmitted otherwise", summary.contradictingBytes);
    if (summary.restarts > 0) facts += fmt::format(", {} jumps in the sequence numbers", summary.restarts);
    return facts;
}

}  // namespace sealscope
