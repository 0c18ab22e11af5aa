// SPDX-License-Identifier: Apache-2.0
#include "app/session/ResumedSessions.h"

#include <algorithm>

namespace sealscope {

namespace {

/// TLS 1.3 resumes with keys of its own (RFC 8446 §2.2); before it the master secret is the same (RFC 5246 §7.3).
bool isOfMasterSecret(const std::optional<TLSDecryptionReport>& report)
{
    constexpr std::uint16_t tls12 = 0x0303;
    return report && report->version && *report->version <= tls12;
}

bool lacksMasterSecret(const TLSStreamDecryptionProbing& probe, const TCPStream& stream)
{
    const auto report = probe.report(stream, ReportDepth::hellos);
    return isOfMasterSecret(report) && report->outcome && report->outcome->failure == TLSDecryptionFailure::noKeyMaterial;
}

}  // namespace

bool mayBeResumed(const SessionPlugIns& plugIns, const TCPStream& stream)
{
    return std::ranges::any_of(plugIns.probes(),
                               [&](const auto& probe) { return isOfMasterSecret(probe->report(stream, ReportDepth::hellos)); });
}

bool foundResumedSession(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    return std::ranges::any_of(plugIns.probes(), [&](const auto& probe) {
        if (probe->reach() != DecryptionReach::full || !plugIns.canOpen(*probe) || !lacksMasterSecret(*probe, stream)) return false;
        plugIns.showAllStreams([&] {
            for (std::int64_t number = 0; number < session.streamCount(); ++number) {
                const TCPStream other = session.stream(number);
                if (plugIns.isSecured(other)) static_cast<void>(probe->report(other, ReportDepth::hellos));
            }
        });
        return !lacksMasterSecret(*probe, stream);
    });
}

}  // namespace sealscope
