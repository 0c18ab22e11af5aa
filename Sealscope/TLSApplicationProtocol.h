// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELModels/TCPStream.h"
#include "platform/Data.h"

#include <optional>
#include <string>

namespace sealscope {

/// Finds out which protocol a connection negotiated for what TLS carries (RFC 7301). Stateless; any thread may call any operation.
struct TLSApplicationProtocol {
    TLSApplicationProtocol() = delete;

    /// The one that an ALPN extension of a server names; `data` comes without the extension's header.
    static std::optional<std::string> ofExtension(DataView data);
    /// The one in the body of an EncryptedExtensions message (RFC 8446 §4.3.1).
    static std::optional<std::string> ofEncryptedExtensions(DataView body);
    /// That of a stream: from the server hello, or from what a key log opens of the server's handshake.
    static std::optional<std::string> negotiated(const TCPStream& stream, const TLSKeyLog& keyLog);
};

}  // namespace sealscope
