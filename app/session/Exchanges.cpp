// SPDX-License-Identifier: Apache-2.0
#include "app/session/Exchanges.h"

#include "app/session/ResumedSessions.h"

namespace sealscope {

std::optional<StreamInterpretation> applicationInterpretation(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return std::nullopt;
    if (interpreter->layer == StreamLayer::security) {
        auto interpretation = plugIns.decryptedInterpretation(stream, plugIns.context());
        if (interpretation || !foundResumedSession(session, stream)) return interpretation;
        return plugIns.decryptedInterpretation(stream, plugIns.context());
    }
    return interpreter->interpret(stream, plugIns.context());
}

bool tellApplication(const Session& session, const TCPStream& stream, const StreamPartVisitor& visit)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return false;
    if (interpreter->layer == StreamLayer::security) {
        return plugIns.tellDecrypted(stream, plugIns.context(), visit) ||
               (foundResumedSession(session, stream) && plugIns.tellDecrypted(stream, plugIns.context(), visit));
    }
    interpreter->tell(stream, plugIns.context(), visit);
    return true;
}

void cut(StreamPart& part, std::int64_t messages)
{
    part.messages.erase(part.messages.begin() + messages, part.messages.end());
    const std::int64_t end = part.first + messages;
    std::erase_if(part.pairings, [&](const Pairing& pairing) { return pairing.requestIndex >= end; });
    for (Pairing& pairing : part.pairings) {
        if (!pairing.replyIndex || *pairing.replyIndex < end) continue;
        pairing.replyIndex.reset();
        pairing.status = PairingStatus::unmatched;
    }
}

std::unique_ptr<StreamExchangeReader> applicationExchanges(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return nullptr;
    if (interpreter->layer == StreamLayer::security) {
        auto reader = plugIns.decryptedExchanges(stream, plugIns.context());
        if (reader || !foundResumedSession(session, stream)) return reader;
        return plugIns.decryptedExchanges(stream, plugIns.context());
    }
    return plugIns.exchanges(*interpreter, stream, plugIns.context());
}

}  // namespace sealscope
