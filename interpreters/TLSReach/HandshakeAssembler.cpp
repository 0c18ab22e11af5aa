// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/HandshakeAssembler.h"

#include "Sealscope/TLSHandshake.h"

namespace sealscope {

void HandshakeAssembler::add(DataView content, ByteRange recordBody, std::vector<AssembledMessage>& messages)
{
    if (content.isEmpty() || hasEnded_) return;
    pending_.insert(pending_.end(), content.begin(), content.end());
    records_.push_back(recordBody);
    std::int64_t taken = 0;
    const DataView bytes(pending_);
    while (bytes.size() - taken >= TLSHandshakeMessage::headerLength) {
        const std::int64_t length = bytes.u24(taken + 1);
        if (length > longestMessage) {
            reset();
            hasEnded_ = true;
            return;
        }
        const std::int64_t end = taken + TLSHandshakeMessage::headerLength + length;
        if (end > bytes.size()) break;
        messages.push_back({bytes[taken], Data(bytes.sub(taken + TLSHandshakeMessage::headerLength, length)), records_});
        // What follows begins in the last of the records.
        records_.erase(records_.begin(), records_.end() - 1);
        taken = end;
    }
    pending_.erase(pending_.begin(), pending_.begin() + taken);
    if (pending_.empty()) records_.clear();
}

void HandshakeAssembler::reset()
{
    pending_.clear();
    records_.clear();
    hasEnded_ = false;
}

}  // namespace sealscope
