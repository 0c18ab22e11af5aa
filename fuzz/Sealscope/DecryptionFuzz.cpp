// SPDX-License-Identifier: Apache-2.0
// A stream with a key log. An input is: length of the key log (2 bytes, big-endian), length of what the client sent (2), key
// log, what the client sent, what the server sent.
#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSStreamReport.h"
#include "fuzz/Require.h"
#include "harness/VectorStream.h"
#include "tests/Sealscope/DecryptionTwin.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <openssl/err.h>

using namespace sealscope;
using Direction = TCPSegment::Direction;

namespace {

void checkReport(const TLSDecryptionReport& report, const StreamData& data, const TLSDirectionReport& direction,
                 std::int64_t plaintextBytes)
{
    require(direction.plaintextBytes == plaintextBytes, "the report counts the plaintext");
    require(direction.stopOffset >= 0 && direction.stopOffset <= data.size(), "a direction stops within its data");
    require(direction.openedRecords > 0 || plaintextBytes == 0, "plaintext comes from records");
    require(report.isSupportedSuite || direction.openedRecords == 0, "nothing opens without a suite");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView input(data, static_cast<std::int64_t>(size));
    const std::int64_t keyLogLength = input.u16(0);
    const std::int64_t clientLength = input.u16(2);
    const DataView text = input.sub(4, keyLogLength);
    const Data client{input.sub(4 + keyLogLength, clientLength)};
    const Data server{input.from(4 + keyLogLength + clientLength)};
    const TCPStream stream = vectorStream(client, server, {.segmentSize = 100});
    const TCPStream scattered = vectorStream(client, server, {.segmentSize = 100, .isScattered = true});
    // Every long row of zeros as a hole.
    const auto parts = withZerosLost(
        streamPieces({{Direction::clientToServer, client, {}}, {Direction::serverToClient, server, {}}}, {.segmentSize = 100}), 6);
    const TCPStream holes = vectorStream(parts, StreamLayout::inPieces);

    const WithKeyLog secrets(text.text());
    const TLSKeyLog keyLog(text.text());
    const TLSDecryptionProbe probe;
    const TLSDecryptionOutcome outcome = probe.probe(stream);
    require(probe.probe(scattered) == outcome, "it does not matter where the bytes lie");
    const auto report = probe.report(stream, ReportDepth::opened);
    require(report->outcome == outcome, "the report brings the same verdict");
    const auto facts = probe.report(stream, ReportDepth::hellos);
    require(probe.report(holes, ReportDepth::opened)->outcome == outcome, "with holes too");
    require(!facts->outcome || facts->outcome == outcome, "and what is known without opening anything agrees");
    const auto view = TLSDecryptionProbe::decryptedInterpretation(stream);
    require(view.has_value() == outcome.isDecrypted(), "there is a decrypted view where the stream decrypts");

    const auto context = TLSStreamDecryption::context(stream);
    require(report->isSupportedVersion == context.has_value(), "the report knows whether there is a context");
    require(context || !outcome.isDecrypted(), "nothing opens without a context");
    bool isDecrypted = false;
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        if (!context) break;
        const auto plain = TLSStreamDecryption::decrypt(direction, stream, *context, keyLog);
        const auto expected = twin::decrypt(stream, direction, *context, keyLog);
        require(plain.has_value() == expected.has_value() && (!plain || plain->data.whole() == expected->data.whole()),
                "walk and lists open the same");
        const std::int64_t bytes = plain ? plain->data.size() : 0;
        for (std::int64_t at = 0; at < bytes; at += 1 + bytes / 16)
            require(plain->index.locate({at, at + 1}) == expected->index.locate({at, at + 1}), "and find it in the same packets");
        const auto withHoles = TLSStreamDecryption::decrypt(direction, holes, *context, keyLog);
        require(withHoles.has_value() == plain.has_value() && (!plain || plain->data.whole() == withHoles->data.whole()),
                "a hole is as its zeros");
        std::int64_t read = 0;
        const auto reader = probe.plaintextReader(scattered, direction);
        while (const auto record = reader ? reader->next() : std::nullopt) {
            require(record->plaintext == plain->data.slice(read, record->plaintext.size()), "the reader reads the same");
            read += record->plaintext.size();
        }
        require(read == bytes, "and all of it");
        checkReport(*report, stream.data(direction), direction == Direction::clientToServer ? report->client : report->server, bytes);
        isDecrypted = isDecrypted || plain;
    }
    require(isDecrypted == outcome.isDecrypted(), "the verdict says what opens");
    require(ERR_peek_error() == 0, "libcrypto's error queue is as it was");
    return 0;
}
