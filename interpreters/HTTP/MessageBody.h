// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamBody.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/ByteRanges.h"
#include "interpreters/HTTP/ContentDecoder.h"
#include "interpreters/HTTP/LostBytes.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sealscope {

/// Where a body lies and how it is coded.
struct CarriedBody {
    ByteRanges ranges;                   ///< of the direction's data
    std::vector<ContentCoding> codings;  ///< in the order in which they were applied
    std::string shortfall;               ///< why it stops short of its end, as a clause; empty when it does not
};

/// A body as its codings left it, made piece by piece from where the stream has it. Identical bytes are handed on where they lie.
class MessageBody final : public StreamBody::Source {
public:
    MessageBody(const TCPStream& stream, TCPSegment::Direction direction, CarriedBody carried, const StreamContext& context);

    std::optional<std::int64_t> knownLength() const override;
    StreamBody::Ending forEachPiece(const StreamBody::Take& take) const override;
    Data joined() const override;

private:
    /// Calls `visit` with the body as it is carried, until it gives false; adds up what of it was lost.
    std::int64_t forEachCarried(const std::function<bool(DataView)>& visit) const;

    StreamData data_;
    LostBytes lost_;
    CarriedBody carried_;
    std::int64_t limit_;
    std::shared_ptr<DecodingAllowance> allowance_;
    mutable std::mutex mutex_;  ///< for the share
    mutable DecodingShare share_;
};

}  // namespace sealscope
