// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDissector.h"

#include "Sealscope/TLSLists.h"

namespace sealscope {

namespace {

/// What the header of a record that we recognise may hold. `length` is that of the body.
constexpr bool canOpenRecord(std::uint8_t contentType, std::uint8_t majorVersion, std::uint8_t minorVersion, std::uint16_t length)
{
    // 18432 = 2^14 + 2048, the longest protected record of TLS 1.2 (RFC 5246 §6.2.3); TLS 1.3 stops at 2^14 + 256.
    return (contentType & 0xFC) == 20 && majorVersion == 3 && minorVersion >= 1 && minorVersion <= 4 && length >= 1 && length <= 18432;
}

}  // namespace

bool TLSDissector::looksLikeTLS(DataView bytes)
{
    return bytes.size() >= TLSRecord::headerLength && canOpenRecord(bytes[0], bytes[1], bytes[2], bytes.u16(3));
}

bool TLSDissector::looksLikeTLS(const StreamData& bytes)
{
    StreamReader reader(bytes);
    return bytes.size() >= TLSRecord::headerLength && canOpenRecord(reader.u8(0), reader.u8(1), reader.u8(2), reader.u16(3));
}

std::vector<TLSRecord> TLSDissector::parseRecords(DataView bytes)
{
    std::vector<TLSRecord> records;
    forEachRecord(bytes, [&](const TLSRecord& record) {
        records.push_back(record);
        return true;
    });
    return records;
}

}  // namespace sealscope
