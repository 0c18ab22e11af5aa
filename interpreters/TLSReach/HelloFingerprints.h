// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <optional>
#include <string>

namespace sealscope {

/// Fingerprints of hellos, by which clients and servers are known again whatever they say later. Each is of a hello's body, the part
/// behind its 4-byte header; nothing when the body is no such hello. Stateless; any thread may call any operation.
struct HelloFingerprints {
    HelloFingerprints() = delete;

    /// JA3 of a client: MD5 of version, suites, extensions, groups and point formats in the order of the hello, in decimal.
    static std::optional<std::string> ja3(DataView clientHello);
    /// JA3S of a server: MD5 of version, suite and extensions.
    static std::optional<std::string> ja3s(DataView serverHello);
    /// JA4 of a client over TCP: "t13d1516h2_8daaf6152771_e5627efa2ab1".
    static std::optional<std::string> ja4(DataView clientHello);
};

}  // namespace sealscope
