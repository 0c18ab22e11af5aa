// SPDX-License-Identifier: Apache-2.0
// Key log text of any kind, read by the parser and by its plain twin.
#include "Sealscope/TLSKeyLog.h"
#include "fuzz/Require.h"
#include "tests/Sealscope/KeyLogTwin.h"

#include <openssl/err.h>

using namespace sealscope;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto [secrets, count] = twin::parse(text);
    const TLSKeyLog keyLog(text);
    require(twin::secretsOf(keyLog) == secrets, "both find the same secrets");
    for (const auto& [key, secret] : secrets) {
        const auto found = keyLog.secrets.find(key.first, DataView(key.second));
        require(found && found->view() == DataView(secret), "each secret is found under its key");
    }
    const TLSKeyLogLineCount counted = TLSKeyLog::countLines(text);
    require(counted.lines == count.lines && counted.validLines == count.validLines, "both count the same lines");
    require((counted.firstInvalidLine == 0) == (counted.lines == counted.validLines), "an invalid line has a number");

    const auto decoded = TLSKeyLog::decodeHex(text);
    const auto expected = twin::decodeHex(twin::clustersOf(utf8::repaired(DataView(text))));
    require(decoded.has_value() == expected.has_value() && (!decoded || viewOf(*decoded) == DataView(*expected)), "both decode the same");
    return 0;
}
