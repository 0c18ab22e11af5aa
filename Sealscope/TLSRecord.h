// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace sealscope {

/// One record header as found in scanned bytes (RFC 8446 §5.1, RFC 5246 §6.2.1). Nothing in it has been validated.
/// Offsets count bytes from the start of what was scanned: a packet's payload, or one direction of a stream.
struct TLSRecord {
    static constexpr std::int64_t headerLength = 5;  ///< type (1), version (2), length (2)

    std::uint8_t contentType = 0;
    std::uint8_t majorVersion = 0;
    std::uint8_t minorVersion = 0;
    std::int64_t declaredLength = 0;  ///< body bytes that the header announces
    std::int64_t recordOffset = 0;    ///< of the header's first byte
    std::int64_t bodyOffset = 0;      ///< recordOffset + headerLength
    bool isTruncated = false;         ///< fewer than declaredLength bytes follow the header

    /// Major and minor version as one number: 0x0303 is TLS 1.2.
    std::uint16_t version() const { return static_cast<std::uint16_t>(majorVersion << 8 | minorVersion); }
    /// Where the next record would begin.
    std::int64_t endOffset() const { return bodyOffset + declaredLength; }
    bool operator==(const TLSRecord&) const = default;
};

}  // namespace sealscope
