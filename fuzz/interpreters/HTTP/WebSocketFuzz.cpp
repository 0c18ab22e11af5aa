// SPDX-License-Identifier: Apache-2.0
#include "fuzz/interpreters/HTTP/InterpretationFuzz.h"
#include "interpreters/HTTP/WebSocketInterpreter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace sealscope;
    const TCPStream stream = fuzzedStream(DataView(data, static_cast<std::int64_t>(size)));
    const StreamContext context{.largestDecodedBody = 1 << 18};
    WebSocketInterpreter::canInterpret(stream, context);
    const StreamInterpretation whole = WebSocketInterpreter::interpret(stream, context);
    requireSound(whole, stream);
    requireTellsParts<WebSocketInterpreter>(whole, stream, context);
    return 0;
}
