// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/WebSocketInflation.h"

#include "interpreters/HTTP/MessageText.h"
#include "interpreters/HTTP/WebSocketFrame.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>
#include <zlib.h>

namespace sealscope {

namespace {

constexpr std::size_t windowSize = 32'768;
// How many messages, and bytes of them, are inflated again at most to get to one.
constexpr std::size_t messagesBetween = 4'096;
constexpr std::int64_t bytesBetween = 1 << 18;
// What a compressor leaves off a message's end (RFC 7692 §7.2.1).
constexpr std::uint8_t tail[] = {0, 0, 0xFF, 0xFF};

class Inflater {
public:
    explicit Inflater(const std::vector<std::uint8_t>& window)
    {
        isOpen_ = inflateInit2(&stream_, -15) == Z_OK;
        if (isOpen_ && !window.empty()) inflateSetDictionary(&stream_, window.data(), static_cast<uInt>(window.size()));
    }
    ~Inflater()
    {
        if (isOpen_) inflateEnd(&stream_);
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    /// False when the data is damaged, has ended, or `take` wants no more.
    bool push(DataView bytes, const StreamBody::Take& take)
    {
        stream_.next_in = const_cast<Bytef*>(bytes.data());
        stream_.avail_in = static_cast<uInt>(bytes.size());
        for (;;) {
            stream_.next_out = output_.data();
            stream_.avail_out = static_cast<uInt>(output_.size());
            const int result = isOpen_ ? ::inflate(&stream_, Z_NO_FLUSH) : Z_MEM_ERROR;
            const std::int64_t made = std::ssize(output_) - stream_.avail_out;
            if (made > 0 && !take({output_.data(), made})) return false;
            // A message may end its deflate stream; the next one begins another (RFC 7692 §7.2.3.5).
            if (result == Z_STREAM_END) return hasEnded_ = true, false;
            if (result == Z_BUF_ERROR || (result == Z_OK && stream_.avail_in == 0 && stream_.avail_out > 0)) return true;
            if (result != Z_OK) return isDamaged_ = true, false;
        }
    }
    bool isDamaged() const { return isDamaged_; }
    bool hasEnded() const { return hasEnded_; }
    std::vector<std::uint8_t> window()
    {
        std::vector<std::uint8_t> window(windowSize);
        uInt size = 0;
        if (isOpen_) inflateGetDictionary(&stream_, window.data(), &size);
        window.resize(size);
        return window;
    }

private:
    z_stream stream_{};
    bool isOpen_ = false, isDamaged_ = false, hasEnded_ = false;
    std::vector<std::uint8_t> output_ = std::vector<std::uint8_t>(16'384);
};

}  // namespace

std::int64_t WebSocketPayload::forEachPiece(ByteRange frames, const StreamBody::Take& take) const
{
    StreamReader reader(data_);
    std::vector<std::uint8_t> unmasked;
    std::int64_t lost = 0;
    for (std::int64_t offset = frames.lower; offset < frames.upper;) {
        const WebSocketFrame frame = WebSocketFrame::read(reader, offset);
        if (frame.headerLength == 0) break;
        const std::int64_t end = std::min(frame.end(), frames.upper);
        for (std::int64_t at = frame.payload(); at < end && (!frame.isControl() || offset == frames.lower);) {
            constexpr std::int64_t atOnce = 65'536;
            const DataView stretch = data_.stretch(at).sub(0, std::min(end - at, atOnce));
            DataView piece = stretch;
            if (lost_.isLost(at, stretch)) {
                lost += stretch.size();  // their zeros were never masked
            } else if (frame.isMasked) {
                unmasked.resize(static_cast<std::size_t>(stretch.size()));
                const std::int64_t phase = at - frame.payload();
                for (std::int64_t i = 0; i < stretch.size(); ++i)
                    unmasked[static_cast<std::size_t>(i)] = stretch[i] ^ frame.mask[static_cast<std::size_t>((phase + i) & 3)];
                piece = unmasked;
            }
            if (!take(piece)) return lost;
            at += stretch.size();
        }
        offset = frame.end();
    }
    return lost;
}

std::int64_t WebSocketInflation::allow(std::size_t message, std::int64_t made, std::int64_t count) const
{
    if (!allowance_) return count;
    const std::lock_guard lock(listMutex_);
    return shares_[message].allow(allowance_.get(), made, count);
}

StreamBody::Ending WebSocketInflation::inflate(std::size_t message, std::vector<std::uint8_t>& window, const StreamBody::Take& take) const
{
    Inflater inflater(window);
    std::int64_t made = 0;
    bool isOverLimit = false, isUsedUp = false;
    const auto takeSome = [&](DataView bytes) {
        const DataView belowLimit = bytes.sub(0, limit_ - made), allowed = belowLimit.sub(0, allow(message, made, belowLimit.size()));
        made += allowed.size();
        isOverLimit = allowed.size() < bytes.size();
        isUsedUp = allowed.size() < belowLimit.size();
        return (allowed.isEmpty() || take(allowed)) && !isOverLimit;
    };
    bool goesOn = true;
    const std::int64_t lost =
        payload_.forEachPiece(rangeOf(message), [&](DataView bytes) { return goesOn = inflater.push(bytes, takeSome); });
    if (goesOn) inflater.push(DataView(tail, std::ssize(tail)), takeSome);
    window = context_ == Context::isKept ? inflater.window() : std::vector<std::uint8_t>();
    if (lost > 0) return {false, fmt::format("the capture lacks {} of it", byteCountText(lost))};
    if (isUsedUp) return {false, std::string(decodingUsedUpText)};
    if (isOverLimit) return {false, fmt::format("it decodes to more than the limit of {}", byteCountText(limit_))};
    if (inflater.isDamaged())
        return {false, fmt::format("its deflate data is damaged after {}, or refers to what is missing", decodedBytesText(made))};
    return {};
}

StreamBody::Ending WebSocketInflation::forEachPiece(std::size_t message, const StreamBody::Take& take) const
{
    std::vector<std::uint8_t> window;
    if (context_ == Context::isKept) {
        const std::lock_guard lock(mutex_);
        Checkpoint from;
        const auto after = std::ranges::upper_bound(checkpoints_, message, {}, &Checkpoint::message);
        if (after != checkpoints_.begin()) from = *std::prev(after);
        if (latest_.message <= message && latest_.message >= from.message) from = latest_;
        std::int64_t bytes = 0;
        for (std::size_t since = from.message; from.message < message; ++from.message) {
            bytes += rangeOf(from.message).size();
            inflate(from.message, from.window, [](DataView) { return true; });
            if (from.message + 1 - since < messagesBetween && bytes < bytesBetween) continue;
            since = from.message + 1;
            bytes = 0;
            if (checkpoints_.empty() || checkpoints_.back().message < since) checkpoints_.push_back({since, from.window});
        }
        window = from.window;
        latest_ = std::move(from);
    }
    return inflate(message, window, take);
}

}  // namespace sealscope
