// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"
#include "tests/capture/ReadCapture.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <lz4frame.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>
#include <zstd.h>

namespace sealscope {

inline constexpr std::int64_t second = 1'000'000'000;
inline constexpr std::int64_t start = 1'700'000'000 * second;

/// Packets of different sizes, whose times have nothing below a microsecond.
inline std::vector<CapturePacket> somePackets(int count = 5, std::int64_t from = start)
{
    std::vector<CapturePacket> packets;
    for (int i = 0; i < count; ++i) {
        const Data frame = patternBytes(61 + 7 * i, static_cast<std::uint64_t>(i));
        packets.push_back(
            {.time = from + std::int64_t{i} * 250'001'000, .frame = frame, .originalLength = frame.size() + (i == 2 ? 1'000 : 0)});
    }
    return packets;
}

inline Data gzip(DataView bytes)
{
    z_stream stream = {};
    deflateInit2(&stream, 6, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::vector<std::uint8_t> packed(deflateBound(&stream, static_cast<uLong>(bytes.size())));
    stream.next_in = const_cast<Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return Data(std::move(packed));
}

// Both with check sums, as the command line programs write them.
inline Data zstd(DataView bytes)
{
    ZSTD_CCtx* const context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
    const auto size = static_cast<std::size_t>(bytes.size());
    std::vector<std::uint8_t> packed(ZSTD_compressBound(size) + 4);
    packed.resize(ZSTD_compress2(context, packed.data(), packed.size(), bytes.data(), size));
    ZSTD_freeCCtx(context);
    return Data(std::move(packed));
}

inline Data lz4(DataView bytes)
{
    LZ4F_preferences_t preferences = {};
    preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
    const auto size = static_cast<std::size_t>(bytes.size());
    std::vector<std::uint8_t> packed(LZ4F_compressFrameBound(size, &preferences));
    packed.resize(LZ4F_compressFrame(packed.data(), packed.size(), bytes.data(), size, &preferences));
    return Data(std::move(packed));
}

/// A named pipe that a thread fills, in pieces of `piece` bytes.
class Pipe {
public:
    Pipe(const TempDirectory& directory, Data bytes, std::int64_t piece) : path_(directory.file("pipe"))
    {
        std::filesystem::remove(path_);
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        writer_ = std::thread([path = path_, bytes, piece] {
            const int descriptor = open(path.c_str(), O_WRONLY);
            for (std::int64_t at = 0; at < bytes.size(); at += piece) {
                const Data part = bytes.sub(at, piece);
                if (write(descriptor, part.data(), static_cast<std::size_t>(part.size())) != part.size()) break;
            }
            close(descriptor);
        });
    }
    ~Pipe() { writer_.join(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::thread writer_;
};

}  // namespace sealscope
