// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSSecrets.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "platform/Data.h"
#include "platform/SecretMemory.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// The secrets of a key log: text of the SSLKEYLOGFILE format (draft-ietf-tls-keylogfile), a label, a client random and a
/// secret a line. A value; see `TLSSecrets` for what copies share.
struct TLSKeyLog {
    /// What a secret is filed under. Labels are compared exactly, byte by byte of their UTF-8 form.
    struct Key {
        std::string label;  ///< "CLIENT_RANDOM" and the like; any first field counts
        Data clientRandom;  ///< normally 32 bytes; any length counts
        bool operator==(const Key&) const = default;
    };

    /// The labels that TLS stacks write key log lines under.
    static constexpr std::array<std::string_view, 10> knownLabels{
        "CLIENT_RANDOM",
        "CLIENT_EARLY_TRAFFIC_SECRET",
        "CLIENT_HANDSHAKE_TRAFFIC_SECRET",
        "SERVER_HANDSHAKE_TRAFFIC_SECRET",
        "CLIENT_TRAFFIC_SECRET_0",
        "SERVER_TRAFFIC_SECRET_0",
        "EARLY_EXPORTER_SECRET",
        "EXPORTER_SECRET",
        "ECH_SECRET",
        "ECH_CONFIG",
    };

    TLSKeyLog() = default;
    /// Reads UTF-8; bytes that are none count as U+FFFD. What is no valid line is skipped; of several for one key the last
    /// counts.
    explicit TLSKeyLog(std::string_view text);

    /// Counts the lines of a text without keeping anything of it.
    static TLSKeyLogLineCount countLines(std::string_view text);
    /// The bytes that pairs of hexadecimal digits stand for; a "+" counts as a leading 0, and "-0" is 0. Nothing for an odd
    /// number of characters or anything else.
    static std::optional<SecretBytes> decodeHex(std::string_view text);

    std::optional<Data> secret(const Key& key) const { return secrets.find(key.label, key.clientRandom); }

    TLSSecrets secrets;
};

}  // namespace sealscope

template <> struct std::hash<sealscope::TLSKeyLog::Key> {
    std::size_t operator()(const sealscope::TLSKeyLog::Key& key) const noexcept
    {
        return std::hash<std::string_view>{}(key.label) * 31 + std::hash<std::string_view>{}(key.clientRandom.view().text());
    }
};
