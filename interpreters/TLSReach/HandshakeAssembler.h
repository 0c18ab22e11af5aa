// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <vector>

namespace sealscope {

/// One handshake message, which may have been spread over records.
struct AssembledMessage {
    std::uint8_t type = 0;
    Data body;                       ///< without its 4-byte header
    std::vector<ByteRange> records;  ///< bodies of the records that carried it, in the direction's data
};

/// Lays the contents of handshake records end to end and takes the messages out. Used by one thread.
class HandshakeAssembler {
public:
    /// A longer message ends it until it is reset: no peer takes one, and what follows is nothing that can be told apart.
    static constexpr std::int64_t longestMessage = 1 << 20;

    /// Takes the next record's content, and appends the messages that are now complete.
    void add(DataView content, ByteRange recordBody, std::vector<AssembledMessage>& messages);
    /// What there is of an unfinished message leads to nothing.
    void reset();
    bool isInsideMessage() const { return !pending_.empty(); }

private:
    std::vector<std::uint8_t> pending_;
    std::vector<ByteRange> records_;
    bool hasEnded_ = false;
};

}  // namespace sealscope
