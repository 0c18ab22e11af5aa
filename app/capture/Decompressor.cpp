// SPDX-License-Identifier: Apache-2.0
#include "app/capture/Decompressor.h"

#include <algorithm>
#include <lz4frame.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

namespace sealscope {
namespace {

using Input = std::span<const std::uint8_t>;
using Output = std::span<std::uint8_t>;

constexpr std::uint32_t gzipMagic = 0x08'8b1f;         // RFC 1952 §2.3.1, with the one compression method there is
constexpr std::uint32_t zstdMagic = 0xfd2f'b528;       // RFC 8878 §3.1.1
constexpr std::uint32_t skippableMagic = 0x184d'2a50;  // RFC 8878 §3.1.2; the low four bits are free
constexpr std::uint32_t lz4Magic = 0x184d'2204;        // LZ4 frame format

std::uint32_t littleEndian(DataView bytes, std::int64_t offset)
{
    return static_cast<std::uint32_t>(bytes.u8(offset)) | static_cast<std::uint32_t>(bytes.u8(offset + 1)) << 8 |
           static_cast<std::uint32_t>(bytes.u8(offset + 2)) << 16 | static_cast<std::uint32_t>(bytes.u8(offset + 3)) << 24;
}

std::unexpected<UnpackError> failed(const char* reason) { return std::unexpected(UnpackError{.words = reason}); }

class GzipDecompressor final : public Decompressor {
public:
    GzipDecompressor() { isReady_ = inflateInit2(&stream_, 16 + MAX_WBITS) == Z_OK; }
    ~GzipDecompressor() override { inflateEnd(&stream_); }
    const char* name() const override { return "gzip"; }
    bool mayEnd() const override { return isBetweenMembers_; }

    std::expected<void, UnpackError> step(Input& input, Output& output) override
    {
        if (!isReady_) return std::unexpected(UnpackError{.problem = UnpackError::Problem::noMemory});
        do {
            if (isBetweenMembers_) {
                // Tapes and some writers fill the end with zeros.
                input = input.subspan(
                    static_cast<std::size_t>(std::ranges::find_if(input, [](auto byte) { return byte != 0; }) - input.begin()));
                if (input.empty()) break;
                inflateReset(&stream_);
                isBetweenMembers_ = false;
            }
            stream_.next_in = const_cast<Bytef*>(input.data());
            stream_.avail_in = static_cast<uInt>(std::min<std::size_t>(input.size(), 1 << 30));
            stream_.next_out = output.data();
            stream_.avail_out = static_cast<uInt>(std::min<std::size_t>(output.size(), 1 << 30));
            const int result = inflate(&stream_, Z_NO_FLUSH);
            const auto read = static_cast<std::size_t>(stream_.next_in - input.data());
            const auto written = static_cast<std::size_t>(stream_.next_out - output.data());
            input = input.subspan(read);
            output = output.subspan(written);
            if (result == Z_BUF_ERROR) break;  // it has nothing to do with what there is
            if (result != Z_OK && result != Z_STREAM_END) return failed(stream_.msg ? stream_.msg : zError(result));
            isBetweenMembers_ = result == Z_STREAM_END;
        } while (!input.empty() && !output.empty());
        return {};
    }

private:
    z_stream stream_ = {};
    bool isReady_ = false;
    bool isBetweenMembers_ = false;
};

class ZstdDecompressor final : public Decompressor {
public:
    explicit ZstdDecompressor(std::int64_t storedSize)
    {
        // The window is memory that a file may ask for whatever it holds: 32 MiB, and more where it is large itself (RFC 8878 §3.1.1.1.2).
        int windowLog = 25;
        while (windowLog < 27 && (std::int64_t{1} << windowLog) < storedSize) ++windowLog;
        ZSTD_DCtx_setParameter(stream_.get(), ZSTD_d_windowLogMax, windowLog);
    }
    const char* name() const override { return "zstd"; }
    bool mayEnd() const override { return isBetweenFrames_; }

    std::expected<void, UnpackError> step(Input& input, Output& output) override
    {
        if (!stream_) return std::unexpected(UnpackError{.problem = UnpackError::Problem::noMemory});
        do {
            ZSTD_inBuffer in{input.data(), input.size(), 0};
            ZSTD_outBuffer out{output.data(), output.size(), 0};
            const std::size_t result = ZSTD_decompressStream(stream_.get(), &out, &in);
            input = input.subspan(in.pos);
            output = output.subspan(out.pos);
            if (ZSTD_getErrorCode(result) == ZSTD_error_frameParameter_windowTooLarge)
                return std::unexpected(UnpackError{.problem = UnpackError::Problem::wantsTooMuchMemory});
            if (ZSTD_isError(result)) return failed(ZSTD_getErrorName(result));
            if (in.pos + out.pos > 0) isBetweenFrames_ = result == 0;
        } while (!input.empty() && !output.empty());
        return {};
    }

private:
    struct Free {
        void operator()(ZSTD_DStream* stream) const { ZSTD_freeDStream(stream); }
    };
    std::unique_ptr<ZSTD_DStream, Free> stream_{ZSTD_createDStream()};
    bool isBetweenFrames_ = false;
};

class LZ4Decompressor final : public Decompressor {
public:
    LZ4Decompressor() { isReady_ = !LZ4F_isError(LZ4F_createDecompressionContext(&context_, LZ4F_VERSION)); }
    ~LZ4Decompressor() override { LZ4F_freeDecompressionContext(context_); }
    const char* name() const override { return "lz4"; }
    bool mayEnd() const override { return isBetweenFrames_; }

    std::expected<void, UnpackError> step(Input& input, Output& output) override
    {
        if (!isReady_) return std::unexpected(UnpackError{.problem = UnpackError::Problem::noMemory});
        do {
            std::size_t read = input.size(), written = output.size();
            const std::size_t result = LZ4F_decompress(context_, output.data(), &written, input.data(), &read, nullptr);
            if (LZ4F_isError(result)) return failed(LZ4F_getErrorName(result));
            input = input.subspan(read);
            output = output.subspan(written);
            if (read + written > 0) isBetweenFrames_ = result == 0;
        } while (!input.empty() && !output.empty());
        return {};
    }

private:
    LZ4F_dctx* context_ = nullptr;
    bool isReady_ = false;
    bool isBetweenFrames_ = false;
};

}  // namespace

std::unique_ptr<Decompressor> Decompressor::recognise(DataView head, std::int64_t storedSize)
{
    // Some compressors put a frame of their own for others to skip before the first real one.
    std::int64_t offset = 0;
    while (head.holds(offset, 8) && (littleEndian(head, offset) & 0xffff'fff0) == skippableMagic)
        offset += 8 + std::int64_t{littleEndian(head, offset + 4)};
    const std::uint32_t magic = head.holds(offset, 4) ? littleEndian(head, offset) : 0;
    if (magic == zstdMagic || (offset > 0 && magic != lz4Magic)) return std::make_unique<ZstdDecompressor>(storedSize);
    if (magic == lz4Magic) return std::make_unique<LZ4Decompressor>();
    if (offset == 0 && (magic & 0xff'ffff) == gzipMagic) return std::make_unique<GzipDecompressor>();
    return nullptr;
}

}  // namespace sealscope
