// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/ContentDecoder.h"

#include "interpreters/HTTP/HeaderFields.h"
#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <array>
#include <brotli/decode.h>
#include <fmt/format.h>
#include <utility>
#include <zlib.h>
#include <zstd.h>

namespace sealscope {

namespace {

constexpr std::size_t outputSize = 65'536;
// The largest window that a decoder of this coding has to bear (RFC 9659 §3).
constexpr int zstdWindowLog = 23;

}  // namespace

/// One coding. It gives what it decodes to `take`, 64 KiB at most at a time.
class ContentDecoder::Stage {
public:
    enum class State : std::uint8_t { goesOn, ended, damaged, stopped };

    virtual ~Stage() = default;
    virtual State push(DataView bytes, const StreamBody::Take& take) = 0;
    State state = State::goesOn;
    ContentCoding coding = ContentCoding::gzip;
    bool hasInput = false;

protected:
    std::vector<std::uint8_t> output_ = std::vector<std::uint8_t>(outputSize);
};

namespace {

using Stage = ContentDecoder::Stage;

class ZlibStage final : public Stage {
public:
    explicit ZlibStage(ContentCoding which) { coding = which; }
    ~ZlibStage() override
    {
        if (isOpen_) inflateEnd(&stream_);
    }

    State push(DataView bytes, const StreamBody::Take& take) override
    {
        if (!isOpen_) {
            // What is called deflate is a zlib stream (RFC 9110 §8.4.1.2); some send it without zlib's two bytes around.
            if (coding == ContentCoding::deflate && first_.size() + static_cast<std::size_t>(bytes.size()) < 2) {
                first_.insert(first_.end(), bytes.begin(), bytes.end());
                return State::goesOn;
            }
            if (!open(bytes)) return State::damaged;
            if (!first_.empty())
                if (const State after = inflateAll(first_, take); after != State::goesOn) return after;
        }
        return inflateAll(bytes, take);
    }

private:
    bool open(DataView bytes)
    {
        int windowBits = 15 + 16;
        if (coding == ContentCoding::deflate) {
            const int method = first_.empty() ? bytes.u8(0) : first_[0], flags = bytes.u8(first_.empty() ? 1 : 0);
            windowBits = (method & 0x0F) == 8 && (method << 8 | flags) % 31 == 0 ? 15 : -15;
        }
        isOpen_ = inflateInit2(&stream_, windowBits) == Z_OK;
        return isOpen_;
    }

    State inflateAll(DataView bytes, const StreamBody::Take& take)
    {
        while (!bytes.isEmpty() || hasMore_) {
            if (isBetweenMembers_) {
                // Members follow each other (RFC 1952 §2.2); what does not begin as one is padding.
                if (bytes[0] != 0x1F) return State::ended;
                isBetweenMembers_ = false;
                if (inflateReset(&stream_) != Z_OK) return State::damaged;
            }
            const auto count = static_cast<uInt>(std::min<std::int64_t>(bytes.size(), 1 << 30));
            stream_.next_in = const_cast<Bytef*>(bytes.data());
            stream_.avail_in = count;
            stream_.next_out = output_.data();
            stream_.avail_out = outputSize;
            const int result = inflate(&stream_, Z_NO_FLUSH);
            bytes = bytes.from(count - stream_.avail_in);
            const std::int64_t made = static_cast<std::int64_t>(outputSize) - stream_.avail_out;
            hasMore_ = stream_.avail_out == 0 && result == Z_OK;
            if (made > 0 && !take({output_.data(), made})) return State::stopped;
            if (result == Z_STREAM_END) {
                if (coding != ContentCoding::gzip) return State::ended;
                isBetweenMembers_ = true;
                hasMore_ = false;
            } else if (result == Z_BUF_ERROR) {
                hasMore_ = false;  // no progress without more input
                break;
            } else if (result != Z_OK) {
                return State::damaged;
            }
        }
        return isBetweenMembers_ ? State::ended : State::goesOn;
    }

    z_stream stream_{};
    std::vector<std::uint8_t> first_;
    bool isOpen_ = false;
    bool hasMore_ = false;
    bool isBetweenMembers_ = false;
};

class BrotliStage final : public Stage {
public:
    BrotliStage() { coding = ContentCoding::brotli; }
    ~BrotliStage() override { BrotliDecoderDestroyInstance(decoder_); }
    BrotliStage(const BrotliStage&) = delete;
    BrotliStage& operator=(const BrotliStage&) = delete;

    State push(DataView bytes, const StreamBody::Take& take) override
    {
        auto left = static_cast<std::size_t>(bytes.size());
        const std::uint8_t* next = bytes.data();
        for (;;) {
            std::size_t room = outputSize;
            std::uint8_t* out = output_.data();
            const BrotliDecoderResult result = BrotliDecoderDecompressStream(decoder_, &left, &next, &room, &out, nullptr);
            if (room < outputSize && !take({output_.data(), static_cast<std::int64_t>(outputSize - room)})) return State::stopped;
            if (result == BROTLI_DECODER_RESULT_SUCCESS) return State::ended;
            if (result == BROTLI_DECODER_RESULT_ERROR) return State::damaged;
            if (result == BROTLI_DECODER_RESULT_NEEDS_MORE_INPUT) return State::goesOn;
        }
    }

private:
    BrotliDecoderState* decoder_ = BrotliDecoderCreateInstance(nullptr, nullptr, nullptr);
};

class ZstdStage final : public Stage {
public:
    ZstdStage()
    {
        coding = ContentCoding::zstd;
        ZSTD_DCtx_setParameter(decoder_, ZSTD_d_windowLogMax, zstdWindowLog);
    }
    ~ZstdStage() override { ZSTD_freeDStream(decoder_); }
    ZstdStage(const ZstdStage&) = delete;
    ZstdStage& operator=(const ZstdStage&) = delete;

    State push(DataView bytes, const StreamBody::Take& take) override
    {
        ZSTD_inBuffer input{bytes.data(), static_cast<std::size_t>(bytes.size()), 0};
        for (;;) {
            ZSTD_outBuffer output{output_.data(), outputSize, 0};
            const std::size_t result = ZSTD_decompressStream(decoder_, &output, &input);
            if (output.pos > 0 && !take({output_.data(), static_cast<std::int64_t>(output.pos)})) return State::stopped;
            if (ZSTD_isError(result)) return State::damaged;
            if (input.pos == input.size && output.pos < output.size) return result == 0 ? State::ended : State::goesOn;
        }
    }

private:
    ZSTD_DStream* decoder_ = ZSTD_createDStream();
};

std::unique_ptr<Stage> stageFor(ContentCoding coding)
{
    switch (coding) {
    case ContentCoding::gzip:
    case ContentCoding::deflate: return std::make_unique<ZlibStage>(coding);
    case ContentCoding::brotli: return std::make_unique<BrotliStage>();
    case ContentCoding::zstd: return std::make_unique<ZstdStage>();
    }
    return nullptr;
}

}  // namespace

std::string_view nameOf(ContentCoding coding)
{
    static constexpr std::array<std::string_view, 4> names{"gzip", "deflate", "brotli", "zstd"};
    return names[static_cast<std::size_t>(coding)];
}

std::optional<ContentCoding> contentCodingNamed(std::string_view name)
{
    if (HeaderField::isNamed(name, "gzip") || HeaderField::isNamed(name, "x-gzip")) return ContentCoding::gzip;
    if (HeaderField::isNamed(name, "deflate")) return ContentCoding::deflate;
    if (HeaderField::isNamed(name, "br")) return ContentCoding::brotli;
    if (HeaderField::isNamed(name, "zstd")) return ContentCoding::zstd;
    return std::nullopt;
}

ContentDecoder::ContentDecoder(const std::vector<ContentCoding>& codings, std::int64_t limit, Allow allowed)
    : made_(codings.size()), limit_(limit), allowed_(std::move(allowed))
{
    for (auto coding = codings.rbegin(); coding != codings.rend(); ++coding) stages_.push_back(stageFor(*coding));
}

ContentDecoder::~ContentDecoder() = default;

bool ContentDecoder::push(DataView bytes, const StreamBody::Take& take)
{
    if (!failure_.empty() || isStopped_) return false;
    return pushInto(0, bytes, take);
}

bool ContentDecoder::pushInto(std::size_t index, DataView bytes, const StreamBody::Take& take)
{
    if (index == stages_.size()) {
        decodedBytes_ += bytes.size();
        isStopped_ = !take(bytes);
        return !isStopped_;
    }
    Stage& stage = *stages_[index];
    if (stage.state == Stage::State::damaged || stage.state == Stage::State::stopped) return false;
    // Padding behind the end changes nothing, but a gzip member or a zstd frame may follow.
    if (stage.state == Stage::State::ended && (stage.coding == ContentCoding::brotli || stage.coding == ContentCoding::deflate))
        return false;
    stage.hasInput = true;
    stage.state = stage.push(bytes, [&](DataView decoded) {
        const DataView belowLimit = decoded.sub(0, limit_ - made_[index]);
        const DataView allowed = allowed_ ? belowLimit.sub(0, allowed_(madeByAll_, belowLimit.size())) : belowLimit;
        made_[index] += allowed.size();
        madeByAll_ += allowed.size();
        if (!allowed.isEmpty() && !pushInto(index + 1, allowed, take)) return false;
        if (allowed.size() == decoded.size()) return true;
        failure_ = allowed.size() < belowLimit.size() ? std::string(decodingUsedUpText)
                                                      : fmt::format("it decodes to more than the limit of {}", byteCountText(limit_));
        return false;
    });
    if (stage.state == Stage::State::damaged && failure_.empty())
        failure_ = fmt::format("its {} data is damaged after {}", nameOf(stage.coding), decodedBytesText(decodedBytes_));
    return stage.state == Stage::State::goesOn || stage.state == Stage::State::ended;
}

StreamBody::Ending ContentDecoder::end()
{
    if (!failure_.empty()) return {false, failure_};
    if (isStopped_) return {};
    for (const auto& stage : stages_)
        if (stage->hasInput && stage->state == Stage::State::goesOn)
            return {false,
                    fmt::format("its {} data stops short of its end, after {}", nameOf(stage->coding), decodedBytesText(decodedBytes_))};
    return {};
}

}  // namespace sealscope
