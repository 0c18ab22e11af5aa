// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

namespace sealscope {

std::optional<TLSDecryptionReport> TLSStreamDecryptionProbing::report(const TCPStream&, bool) const { return std::nullopt; }

std::unique_ptr<PlaintextReader> TLSStreamDecryptionProbing::plaintextReader(const TCPStream&, TCPSegment::Direction) const
{
    return nullptr;
}

bool TLSStreamDecryptionProbing::openPlaintext(const TCPStream& stream, PlaintextSink& sink) const
{
    bool anything = false;
    for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient}) {
        const auto reader = plaintextReader(stream, direction);
        while (const auto record = reader ? reader->next() : std::nullopt) {
            anything = true;
            if (!sink.plaintext(direction, record->plaintext, record->body)) break;
        }
    }
    return anything;
}

TLSKeyMaterialReport TLSStreamDecryptionProbing::keyMaterial() const { return {}; }

bool TLSStreamDecryptionProbing::hasSecrets(DataView) const { return false; }

SecretText TLSStreamDecryptionProbing::keyLogLines(const TCPStream&) const { return {}; }

TLSKeyLogLineCount TLSStreamDecryptionProbing::countKeyLogLines(std::string_view) const { return {}; }

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
