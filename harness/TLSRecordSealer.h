// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TLSSession.h"

namespace sealscope {

/// Protects records by hand under the keys of a session, for what libssl never sends: empty records, padding and types of
/// one's own. Knows AES-GCM and ChaCha20-Poly1305, and derives keys with libcrypto's own functions.
class TLSRecordSealer {
public:
    /// The keys under which one direction of a finished session sends application data. `sequenceNumber` is that of the
    /// next record: after a handshake without tickets 0 in TLS 1.3, and 1 in TLS 1.2, where Finished was the first.
    TLSRecordSealer(const TLSSession& session, TCPSegment::Direction direction, std::uint64_t sequenceNumber);

    /// The next record, header included. Padding exists in TLS 1.3 alone (RFC 8446 §5.4).
    Data seal(std::uint8_t contentType, DataView plaintext, std::int64_t padding = 0);

private:
    bool isTLS13_;
    const char* cipher_;
    std::vector<std::uint8_t> key_;
    std::vector<std::uint8_t> iv_;
    std::uint64_t sequenceNumber_;
};

/// The secret of a key log line with this label; throws std::runtime_error when the log has none.
std::vector<std::uint8_t> keyLogSecret(const std::string& keyLog, std::string_view label);

}  // namespace sealscope
