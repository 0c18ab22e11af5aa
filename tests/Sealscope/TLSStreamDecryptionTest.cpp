// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamDecryption.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSDissector.h"
#include "tests/Sealscope/WithKeyLog.h"
#include "tests/support/Hex.h"
#include "tests/support/TLSSession.h"
#include "tests/support/VectorStream.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

using Action = TLSStep::Action;
using Direction = TCPSegment::Direction;
using DirectionPlain = TLSStreamDecryption::DirectionPlain;
constexpr Direction client = Direction::clientToServer;
constexpr Direction server = Direction::serverToClient;

std::optional<DirectionPlain> decrypted(const TCPStream& stream, Direction direction)
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return std::nullopt;
    return context->isTLS13 ? TLSStreamDecryption::decryptTLS13(direction, stream, context->clientRandom, context->cipherSuite)
                            : TLSStreamDecryption::decryptTLS12(direction, stream, *context);
}

/// The plaintext of one direction; empty where nothing decrypts.
Data plaintext(const TCPStream& stream, Direction direction)
{
    const auto plain = decrypted(stream, direction);
    return plain ? plain->data : Data();
}

/// Another conversation than text of one length: short, empty, longer than a record, long.
std::vector<TLSStep> conversation()
{
    return {clientSends("GET / HTTP/1.1\r\n\r\n"),
            serverSends(patternBytes(40'000, 2)),
            clientSends(patternBytes(1, 3)),
            serverSends(patternBytes(16'384, 4)),
            clientSends(patternBytes(16'385, 5)),
            serverSends("bye"),
            clientDoes(Action::close),
            serverDoes(Action::close)};
}

void expectWhatWasSent(const TLSSession& session, std::string_view name)
{
    ASSERT_TRUE(session.isComplete) << name << ": " << session.failure;
    const WithKeyLog keyLog(session.keyLog);
    for (const bool isScattered : {false, true}) {
        const TCPStream stream = vectorStream(session.flights, {.segmentSize = 1'000, .isScattered = isScattered});
        for (const Direction direction : {client, server}) EXPECT_EQ(plaintext(stream, direction), session.plaintext(direction)) << name;
    }
}

TEST(TLSStreamDecryption, OpensEverySuite)
{
    int opened = 0;
    for (const std::uint16_t version : {0x0303, 0x0304}) {
        for (const TLSSuite& suite : availableSuites(version)) {
            const TLSSession session = runTLS({.version = version, .suites = suite.name}, conversation());
            ASSERT_TRUE(session.isComplete) << suite.standardName << ": " << session.failure;
            const bool canBeOpened = version == 0x0304 ? TLS13RecordDecryptor::suiteParameters(suite.codePoint).has_value()
                                                       : TLS12RecordDecryptor::suiteParameters(suite.codePoint).has_value();
            if (canBeOpened) {
                expectWhatWasSent(session, suite.standardName);
                ++opened;
            } else {
                const WithKeyLog keyLog(session.keyLog);
                const TCPStream stream = vectorStream(session.flights);
                EXPECT_EQ(plaintext(stream, server), Data()) << suite.standardName;
                EXPECT_EQ(TLSDecryptionProbe().probe(stream), TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch))
                    << suite.standardName;
            }
        }
    }
    // What libssl offers of both tables: DH_RSA it does not.
    EXPECT_EQ(opened, 11 + 3);
}

}  // namespace
}  // namespace sealscope
