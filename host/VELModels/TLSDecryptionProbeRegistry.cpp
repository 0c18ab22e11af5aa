// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

namespace sealscope {

std::optional<TLSDecryptionReport> TLSStreamDecryptionProbing::report(const TCPStream&, bool) const { return std::nullopt; }

bool TLSStreamDecryptionProbing::openPlaintext(const TCPStream&, PlaintextSink&) const { return false; }

TLSKeyMaterialReport TLSStreamDecryptionProbing::keyMaterial() const { return {}; }

bool TLSStreamDecryptionProbing::hasSecrets(DataView) const { return false; }

std::string TLSStreamDecryptionProbing::keyLogLines(const TCPStream&) const { return {}; }

TLSDecryptionProbeRegistry& TLSDecryptionProbeRegistry::shared()
{
    static TLSDecryptionProbeRegistry registry;
    return registry;
}

void TLSDecryptionProbeRegistry::registerProbe(std::shared_ptr<const TLSStreamDecryptionProbing> probe)
{
    const std::lock_guard lock(mutex_);
    probes_.push_back(std::move(probe));
}

void TLSDecryptionProbeRegistry::unregisterProbe(const std::shared_ptr<const TLSStreamDecryptionProbing>& probe)
{
    const std::lock_guard lock(mutex_);
    std::erase(probes_, probe);
}

std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> TLSDecryptionProbeRegistry::snapshot() const
{
    const std::lock_guard lock(mutex_);
    return probes_;
}

}  // namespace sealscope
