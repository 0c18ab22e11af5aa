// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/MessageBody.h"

#include "interpreters/HTTP/MessageText.h"

#include <fmt/format.h>
#include <utility>

namespace sealscope {

MessageBody::MessageBody(const TCPStream& stream, TCPSegment::Direction direction, CarriedBody carried, const StreamContext& context)
    : data_(stream.data(direction)), lost_(stream, direction), carried_(std::move(carried)), limit_(context.largestDecodedBody),
      allowance_(context.decodingAllowance)
{}

std::optional<std::int64_t> MessageBody::knownLength() const
{
    if (!carried_.codings.empty()) return std::nullopt;
    return carried_.ranges.size();
}

std::int64_t MessageBody::forEachCarried(const std::function<bool(DataView)>& visit) const
{
    std::int64_t lost = 0;
    std::vector<DataView> stretches;
    carried_.ranges.forEach([&](ByteRange range) {
        constexpr std::int64_t atOnce = 1 << 20;  // a range may be a whole download
        for (std::int64_t offset = range.lower; offset < range.upper;) {
            data_.findStretches(offset, std::min(range.upper - offset, atOnce), stretches);
            for (const DataView& stretch : stretches) {
                if (stretch.isEmpty()) continue;
                if (lost_.isLost(offset, stretch)) lost += stretch.size();
                if (!visit(stretch)) return false;
                offset += stretch.size();
            }
        }
        return true;
    });
    return lost;
}

StreamBody::Ending MessageBody::forEachPiece(const StreamBody::Take& take) const
{
    StreamBody::Ending ending;
    std::int64_t lost = 0;
    if (carried_.codings.empty()) {
        lost = forEachCarried(take);
    } else {
        ContentDecoder decoder(carried_.codings, limit_, [this](std::int64_t made, std::int64_t count) {
            const std::lock_guard lock(mutex_);
            return share_.allow(allowance_.get(), made, count);
        });
        lost = forEachCarried([&](DataView bytes) { return decoder.push(bytes, take); });
        ending = decoder.end();
    }
    const auto add = [&](const std::string& reason) {
        ending.reason = ending.isComplete ? reason : reason + "; " + ending.reason;
        ending.isComplete = false;
    };
    if (!carried_.shortfall.empty()) add(carried_.shortfall);
    if (lost > 0) add(fmt::format("the capture lacks {} of it, shown as zeros", byteCountText(lost)));
    return ending;
}

Data MessageBody::joined() const
{
    // In one place already, as bodies of a packet or a record are.
    if (carried_.codings.empty() && carried_.ranges.isInOnePlace())
        return data_.slice(carried_.ranges.bounds().lower, carried_.ranges.size());
    return Source::joined();
}

}  // namespace sealscope
