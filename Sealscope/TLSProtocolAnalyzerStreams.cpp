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

void TLSProtocolAnalyzer::forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    TLSStreamParser::forEachPart(stream, context, visit);
}

}  // namespace sealscope
