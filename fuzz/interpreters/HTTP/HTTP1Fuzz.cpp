// SPDX-License-Identifier: Apache-2.0
#include "fuzz/interpreters/HTTP/InterpretationFuzz.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace sealscope;
    const TCPStream stream = fuzzedStream(DataView(data, static_cast<std::int64_t>(size)));
    const StreamContext context{.largestDecodedBody = 1 << 18};
    HTTP1Interpreter::canInterpret(stream, context);
    const StreamInterpretation whole = HTTP1Interpreter::interpret(stream, context);
    requireSound(whole, stream);
    requireTellsParts<HTTP1Interpreter>(whole, stream, context);
    requireTellsExchanges<HTTP1Interpreter>(whole, stream, context);
    requireFollows<HTTP1Interpreter>(stream, context);
    return 0;
}
