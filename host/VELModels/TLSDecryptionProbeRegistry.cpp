// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

namespace sealscope {

bool TLSDecryptionReport::openedEverything() const
{
    const auto isWhole = [](const TLSDirectionReport& direction) {
        using enum TLSDirectionReport::Stop;
        return (direction.stop == endOfData || direction.stop == nothingProtected) && direction.skippedRecords == 0;
    };
    return isWhole(client) && isWhole(server);
}

std::shared_ptr<const TLSStreamDecryptionProbing> TLSStreamDecryptionProbing::withSecrets(std::shared_ptr<const KeyLogSources>) const
{
    return nullptr;
}

std::optional<TLSDecryptionReport> TLSStreamDecryptionProbing::report(const TCPStream&, ReportDepth) const { return std::nullopt; }

std::optional<StreamInterpretation> TLSStreamDecryptionProbing::decryptedInterpretation(const TCPStream&, const StreamContext&) const
{
    return std::nullopt;
}

bool TLSStreamDecryptionProbing::tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    auto interpretation = decryptedInterpretation(stream, context);
    if (!interpretation) return false;
    StreamPart whole = partOf(*std::move(interpretation));
    visit(whole);
    return true;
}

std::unique_ptr<PlaintextReader> TLSStreamDecryptionProbing::plaintextReader(const TCPStream&, TCPSegment::Direction) const
{
    return nullptr;
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
