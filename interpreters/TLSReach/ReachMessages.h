// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/TLSReach/HandshakeAssembler.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sealscope {

/// Shows handshake messages that were opened, and certificates as text. Stateless; any thread may call any operation.
struct ReachMessages {
    ReachMessages() = delete;

    /// How messages are laid out that TLS 1.3 has changed.
    enum class Form : std::uint8_t { upToTLS12, TLS13 };

    /// The attribute of a Certificate message that holds its certificates as text (RFC 7468).
    static constexpr const char* certificatesKey = "certificates";

    /// A handshake message that was under encryption, as a row of the stream view.
    static StreamMessage message(const AssembledMessage& message, Form form, TCPSegment::Direction direction, const TCPStream& stream);
    /// The certificates of a Certificate message's body (RFC 8446 §4.4.2, RFC 5246 §7.4.2).
    static std::vector<DataView> certificates(DataView body, Form form);
    /// Certificates as text (RFC 7468), each under a comment with its subject.
    static std::string pem(const std::vector<DataView>& certificates);
};

}  // namespace sealscope
