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
