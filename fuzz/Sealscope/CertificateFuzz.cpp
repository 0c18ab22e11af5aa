// SPDX-License-Identifier: Apache-2.0
// A Certificate message body: its entries, and the summary of each and of the body as a whole.
#include "Sealscope/TLSDissector.h"
#include "fuzz/Require.h"
#include "platform/UTF8.h"

#include <openssl/err.h>

using namespace sealscope;

namespace {

void checkText(const std::optional<std::string>& text)
{
    if (text) require(utf8::isWellFormed(DataView(*text)), "a field is text");
}

void checkTime(const std::optional<std::string>& time)
{
    if (time) require(time->size() == 20 && time->ends_with('Z') && (*time)[10] == 'T', "a time has its form");
}

void checkSummary(DataView der)
{
    const auto summary = TLSDissector::certSummary(der);
    require(ERR_peek_error() == 0, "libcrypto's error queue is as it was");
    if (!summary) return;
    checkText(summary->subjectCN);
    checkText(summary->issuerCN);
    checkTime(summary->notBefore);
    checkTime(summary->notAfter);
    require(summary->serial && summary->serial->size() % 3 == 2, "a serial number has digit pairs");
    std::int64_t textBytes = 0;
    for (const std::string& name : summary->sans) {
        checkText(name);
        textBytes += 2 + static_cast<std::int64_t>(name.size());
    }
    require(textBytes <= der.size(), "names lie in the certificate");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView body(data, static_cast<std::int64_t>(size));
    std::int64_t end = 103;
    for (const TLSCertEntry& entry : TLSDissector::parseCertificates(body, 100)) {
        require(entry.offsetInSegment == end + 3, "entries touch");
        require(entry.length == entry.der.size(), "an entry is whole");
        require(entry.der == body.sub(entry.offsetInSegment - 100, entry.length), "an entry is where it says");
        end = entry.offsetInSegment + entry.length;
        checkSummary(entry.der);
    }
    require(end <= 103 || end <= 100 + body.size(), "entries lie in the body");
    checkSummary(body);
    return 0;
}
