// SPDX-License-Identifier: Apache-2.0
// The analyzer class as a stream interpreter.
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "Sealscope/TLSStreamParser.h"

namespace sealscope {

bool TLSProtocolAnalyzer::canInterpret(const TCPStream& stream)
{
    return TLSDissector::looksLikeTLS(stream.clientToServerData) || TLSDissector::looksLikeTLS(stream.serverToClientData);
}

StreamInterpretation TLSProtocolAnalyzer::interpret(const TCPStream& stream) { return TLSStreamParser::interpretation(stream); }

}  // namespace sealscope
