// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/ContentDecoder.h"

#include "harness/Hex.h"

#include <algorithm>
#include <brotli/encode.h>
#include <gtest/gtest.h>
#include <zlib.h>
#include <zstd.h>

namespace sealscope {
namespace {

Data deflated(DataView plain, int windowBits)
{
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    std::vector<std::uint8_t> coded(deflateBound(&stream, static_cast<uLong>(plain.size())) + 32);
    stream.next_in = const_cast<Bytef*>(plain.data());
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = coded.data();
    stream.avail_out = static_cast<uInt>(coded.size());
    deflate(&stream, Z_FINISH);
    coded.resize(stream.total_out);
    deflateEnd(&stream);
    return Data(std::move(coded));
}

Data brotliOf(DataView plain)
{
    std::size_t size = BrotliEncoderMaxCompressedSize(static_cast<std::size_t>(plain.size())) + 32;
    std::vector<std::uint8_t> coded(size);
    BrotliEncoderCompress(5, 22, BROTLI_MODE_GENERIC, static_cast<std::size_t>(plain.size()), plain.data(), &size, coded.data());
    coded.resize(size);
    return Data(std::move(coded));
}

Data zstdOf(DataView plain)
{
    std::vector<std::uint8_t> coded(ZSTD_compressBound(static_cast<std::size_t>(plain.size())));
    coded.resize(ZSTD_compress(coded.data(), coded.size(), plain.data(), static_cast<std::size_t>(plain.size()), 3));
    return Data(std::move(coded));
}

Data gzipOf(DataView plain) { return deflated(plain, 15 + 16); }

struct Decoded {
    Data bytes;
    StreamBody::Ending ending;
};

Decoded decode(const std::vector<ContentCoding>& codings, DataView coded, std::int64_t step = 1'000, std::int64_t limit = 1 << 30)
{
    ContentDecoder decoder(codings, limit);
    std::vector<std::uint8_t> bytes;
    for (std::int64_t offset = 0; offset < coded.size(); offset += step) {
        const auto take = [&](DataView piece) {
            bytes.insert(bytes.end(), piece.begin(), piece.end());
            return true;
        };
        if (!decoder.push(coded.sub(offset, step), take)) break;
    }
    return {Data(std::move(bytes)), decoder.end()};
}

using enum ContentCoding;

TEST(ContentDecoder, UndoesEveryCoding)
{
    const Data text = Data::fromText(std::string(100'000, 'a') + "the end"), noise = patternBytes(200'000);
    struct Case {
        const char* name;
        std::vector<ContentCoding> codings;
        Data coded;
        Data expected;
    };
    const Case cases[] = {
        {"gzip", {gzip}, gzipOf(text), text},
        {"gzip in two members, zeros behind them", {gzip}, joined({gzipOf(text), gzipOf(noise), hex("00 00")}), joined({text, noise})},
        {"deflate as the standard has it", {deflate}, deflated(text, 15), text},
        {"deflate without zlib's frame", {deflate}, deflated(noise, -15), noise},
        {"brotli", {brotli}, brotliOf(noise), noise},
        {"zstd in two frames", {zstd}, joined({zstdOf(text), zstdOf(noise)}), joined({text, noise})},
        {"several on top of each other", {gzip, brotli, zstd}, zstdOf(brotliOf(gzipOf(text))), text},
        {"nothing at all", {gzip}, {}, {}},
    };
    for (const auto& [name, codings, coded, expected] : cases) {
        for (const std::int64_t step : {1, 7, 1'000, 1'000'000}) {
            const Decoded decoded = decode(codings, coded, step);
            EXPECT_TRUE(decoded.bytes == expected) << name << " by " << step;
            EXPECT_EQ(decoded.ending, StreamBody::Ending{}) << name << " by " << step << ": " << decoded.ending.reason;
        }
    }
}

TEST(ContentDecoder, KeepsWhatItCouldDecodeAndSaysWhy)
{
    const Data plain = Data::fromText(std::string(30'000, 'x')), coded = gzipOf(plain);
    std::vector<std::uint8_t> flipped(coded.data(), coded.data() + coded.size());
    flipped[flipped.size() - 6] ^= 1;  // of the checksum
    struct Case {
        const char* name;
        std::vector<ContentCoding> codings;
        Data coded;
        std::int64_t limit;
        std::int64_t expected;  ///< decoded bytes at least
        const char* reason;
    };
    const Case cases[] = {
        {"cut", {gzip}, coded.sub(0, coded.size() - 9), 1 << 30, 1, "its gzip data stops short of its end, after "},
        {"another checksum", {gzip}, Data(flipped), 1 << 30, 30'000, "its gzip data is damaged after 30,000 decoded bytes"},
        {"no gzip at all", {gzip}, plain, 1 << 30, 0, "its gzip data is damaged after 0 decoded bytes"},
        {"a limit", {gzip}, coded, 20'000, 20'000, "it decodes to more than the limit of 20 kB"},
        {"a limit between two codings",
         {gzip, gzip},
         gzipOf(gzipOf(patternBytes(50'000))),
         20'000,
         1,
         "it decodes to more than the limit of 20 kB"},
    };
    for (const auto& [name, codings, bytes, limit, expected, reason] : cases) {
        const Decoded decoded = decode(codings, bytes, 500, limit);
        EXPECT_GE(decoded.bytes.size(), expected) << name;
        EXPECT_LE(decoded.bytes.size(), limit) << name;
        EXPECT_FALSE(decoded.ending.isComplete) << name;
        EXPECT_TRUE(decoded.ending.reason.starts_with(reason)) << name << ": " << decoded.ending.reason;
    }
}

}  // namespace
}  // namespace sealscope
