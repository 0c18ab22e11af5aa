// SPDX-License-Identifier: Apache-2.0
// The analyzer class as a stream interpreter.
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "Sealscope/TLSStreamParser.h"

namespace sealscope {

bool TLSProtocolAnalyzer::canInterpret(const TCPStream& stream, const StreamContext&)
{
    return TLSDissector::looksLikeTLS(stream.clientToServerData) || TLSDissector::looksLikeTLS(stream.serverToClientData);
}

StreamInterpretation TLSProtocolAnalyzer::interpret(const TCPStream& stream, const StreamContext& context)
{
    return TLSStreamParser::interpretation(stream, context);
}

std::optional<std::vector<Pairing>> TLSProtocolAnalyzer::forEachMessage(const TCPStream& stream, const StreamContext& context,
                                                                        const StreamMessageVisitor& visit)
{
    return TLSStreamParser::forEachMessage(stream, context, visit);
}

}  // namespace sealscope
