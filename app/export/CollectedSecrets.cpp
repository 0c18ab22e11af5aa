// SPDX-License-Identifier: Apache-2.0
#include "app/export/CollectedSecrets.h"

#include "app/verdict/StreamVerdict.h"

namespace sealscope {

CollectedSecrets collectSecrets(const Session& session, const std::vector<std::int64_t>& streams, const std::stop_token& stop)
{
    const StreamVerdicts verdicts(session);
    CollectedSecrets secrets;
    for (const std::int64_t number : streams) {
        if (stop.stop_requested()) break;
        const TCPStream stream = session.stream(number);
        if (!session.plugIns().isSecured(stream)) continue;
        const SecretText lines = verdicts.keyLogLines(stream);
        secrets.keyLog += lines;
        secrets.connections += !lines.empty();
    }
    return secrets;
}

}  // namespace sealscope
