// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/TempDirectory.h"
#include "tests/hostile/Shape.h"

#include <limits>
#include <lz4frame.h>
#include <stdexcept>
#include <zlib.h>
#include <zstd.h>

namespace sealscope::hostile {

namespace {

/// A stream of bytes in a packed form, made piece by piece: there may be gigabytes.
class Packer {
public:
    virtual ~Packer() = default;
    virtual void add(const Bytes& bytes) = 0;
    virtual Bytes end() = 0;
};

class Zstd final : public Packer {
public:
    Zstd() { ZSTD_CCtx_setParameter(context_, ZSTD_c_compressionLevel, 1); }
    ~Zstd() override { ZSTD_freeCCtx(context_); }
    void add(const Bytes& bytes) override { run(bytes, ZSTD_e_continue); }
    Bytes end() override
    {
        run({}, ZSTD_e_end);
        return std::move(packed_);
    }

private:
    void run(const Bytes& bytes, ZSTD_EndDirective directive)
    {
        ZSTD_inBuffer input{bytes.data(), bytes.size(), 0};
        for (std::size_t left = 1; left != 0 || input.pos < input.size;) {
            Bytes room(1 << 17);
            ZSTD_outBuffer output{room.data(), room.size(), 0};
            left = ZSTD_compressStream2(context_, &output, &input, directive);
            if (directive == ZSTD_e_continue) left = 0;
            packed_.insert(packed_.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(output.pos));
        }
    }
    ZSTD_CCtx* context_ = ZSTD_createCCtx();
    Bytes packed_;
};

Bytes gzipped(const Bytes& bytes, int level = 6)
{
    z_stream stream{};
    deflateInit2(&stream, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    Bytes packed(deflateBound(&stream, bytes.size()) + 32);
    stream.next_in = const_cast<Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

Bytes zstdOf(const Bytes& bytes)
{
    Zstd packer;
    packer.add(bytes);
    return packer.end();
}

Bytes lz4Of(const Bytes& bytes)
{
    Bytes packed(LZ4F_compressFrameBound(bytes.size(), nullptr));
    packed.resize(LZ4F_compressFrame(packed.data(), packed.size(), bytes.data(), bytes.size(), nullptr));
    return packed;
}

/// Plain conversations, for formats that are what is odd.
Attack ordinary(std::int64_t connections, std::int64_t records = 1)
{
    Attack attack;
    for (std::int64_t i = 0; i < connections; ++i) {
        attack.open(i);
        attack.send(i, false, clientHello(serverName("example.org")));
        attack.send(i, true, serverHello());
        for (std::int64_t k = 0; k < records; ++k) attack.send(i, k % 2 == 1, record(23, Bytes(64, 1)));
    }
    return attack;
}

CapturePacket tcpPacket(std::int64_t number)
{
    Bytes frame = Attack::packet(number, {.sequence = 1'001}, clientHello());
    return {
        .time = 1'700'000'000'000'000'000 + number, .frame = Data(DataView(frame)), .originalLength = std::ssize(frame), .linkType = 101};
}

void little(Bytes& bytes, std::uint64_t value, int count = 4)
{
    for (int i = 0; i < count; ++i) put8(bytes, value >> (8 * i));
}

Made saveBlocks(const std::filesystem::path& folder, const PcapngBuilder& builder, std::int64_t packets)
{
    return save(folder, builder.bytes(), {.packets = packets, .connections = packets});
}

std::string keyLogLines(std::int64_t count, bool areDifferent)
{
    std::string text;
    for (std::int64_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(areDifferent ? i : 7);
        text += "CLIENT_RANDOM " + std::string(64 - number.size(), '0') + number + " " + std::string(96, 'a') + "\n";
    }
    return text;
}

/// A capture that begins as one, goes on with one piece for ever, and unpacks to `size` bytes.
Made saveBomb(const std::filesystem::path& folder, const Bytes& start, const Bytes& piece, std::int64_t size, std::int64_t packets)
{
    Zstd packer;
    packer.add(start);
    for (std::int64_t done = std::ssize(start); done < size; done += std::ssize(piece)) packer.add(piece);
    return save(folder, packer.end(), {.packets = packets, .unpacked = size});
}

}  // namespace

std::vector<Shape> captureShapes()
{
    std::vector<Shape> shapes;
    const auto add = [&](std::string name, std::function<Made(const std::filesystem::path&)> make) -> Shape& {
        return shapes.emplace_back(Shape{.name = std::move(name), .make = std::move(make)});
    };
    const auto addBytes = [&](std::string name, std::function<Bytes()> bytes) {
        add(std::move(name), [bytes](const auto& folder) { return save(folder, bytes(), {.packets = 1'000, .connections = 10}); });
    };

    addBytes("PcapOfLengthThatIsNotThere", [] {
        Bytes bytes = ordinary(3).bytes();
        little(bytes, 1), little(bytes, 1), little(bytes, 0xFFFF'FFF0), little(bytes, 0xFFFF'FFF0);
        return put(bytes, Bytes(100, 1));
    });
    addBytes("PcapThatIsAHeader", [] { return Attack().bytes(); });
    addBytes("EmptyFile", [] { return Bytes(); });
    addBytes("PcapngOfBlockWithoutLength", [] {
        PcapngBuilder builder;
        builder.interface({.linkType = 101}).packet(tcpPacket(1));
        Bytes bytes = builder.bytes();
        return put(bytes, Bytes(4'096, 0));
    });
    addBytes("PcapngOfBlockWithoutEnd", [] {
        PcapngBuilder builder;
        builder.interface({.linkType = 101}).packet(tcpPacket(1));
        Bytes bytes = builder.bytes();
        little(bytes, 6), little(bytes, 0x7FFF'FFFC);
        return put(bytes, Bytes(4'096, 0));
    });
    add("PcapOfEmptyPackets", [](const auto& folder) {
        Attack attack;
        for (int i = 0; i < 400'000; ++i) attack.frame({});
        return save(folder, attack);
    });
    add("PcapngOfInterfaces", [](const auto& folder) {
        PcapngBuilder builder;
        for (std::uint32_t i = 0; i < 150'000; ++i) builder.interface({.linkType = 101});
        builder.packet(tcpPacket(1), 149'999);
        return saveBlocks(folder, builder, 1);
    });
    add("PcapngOfLinkTypes", [](const auto& folder) {
        PcapngBuilder builder;
        for (std::uint32_t i = 0; i < 60'000; ++i) builder.interface({.linkType = 300 + i}).packet(tcpPacket(1), i);
        return saveBlocks(folder, builder, 60'000);
    });
    add("PcapngOfSections", [](const auto& folder) {
        PcapngBuilder builder;
        for (int i = 0; i < 60'000; ++i)
            builder.section(i % 2 == 0 ? std::endian::big : std::endian::little).interface({.linkType = 101}).packet(tcpPacket(i));
        return saveBlocks(folder, builder, 60'000);
    });
    add("PcapngOfClocks", [](const auto& folder) {
        PcapngBuilder builder;
        const std::uint8_t resolutions[] = {0, 9, 19, 20, 127, 0x80, 0xBF, 0xC0, 0xFF};
        std::uint32_t number = 0;
        for (const std::uint8_t resolution : resolutions)
            for (const std::int64_t offset :
                 {std::int64_t{0}, std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
                Bytes body;
                little(body, 101, 2), little(body, 0, 2), little(body, 0);
                little(body, 9, 2), little(body, 1, 2), put8(body, resolution), put(body, Bytes(3, 0));
                little(body, 14, 2), little(body, 8, 2), little(body, static_cast<std::uint64_t>(offset), 8);
                builder.block(1, DataView(body));
                Bytes packet;
                const Bytes frame = Attack::packet(number, {.sequence = 1'001}, clientHello());
                little(packet, number++), little(packet, 0xFFFF'FFFF), little(packet, 0xFFFF'FFFF);
                little(packet, frame.size()), little(packet, frame.size()), put(packet, frame);
                builder.block(6, DataView(packet));
            }
        return saveBlocks(folder, builder, 100);
    });
    add("PcapngOfOptions", [](const auto& folder) {
        PcapngBuilder builder;
        Bytes body;
        little(body, 101, 2), little(body, 0, 2), little(body, 0);
        for (int i = 0; i < 500'000; ++i) little(body, 2, 2), little(body, 0, 2);
        builder.interface({.linkType = 101}).block(1, DataView(body)).packet(tcpPacket(1));
        return saveBlocks(folder, builder, 1);
    });
    add("PcapngOfSecrets", [](const auto& folder) {
        PcapngBuilder builder;
        builder.interface({.linkType = 101}).packet(tcpPacket(1));
        for (int i = 0; i < 40'000; ++i) builder.secrets(keyLogLines(1, false));
        return saveBlocks(folder, builder, 1);
    });
    add("SecretsBlockThatUnpacks", [](const auto& folder) {
        PcapngBuilder builder;
        builder.interface({.linkType = 101}).packet(tcpPacket(1)).secrets(keyLogLines(300'000, false));
        return save(folder, zstdOf(builder.bytes()), {.packets = 1, .connections = 1, .unpacked = std::ssize(builder.bytes())});
    });
    add("BlockThatUnpacks", [](const auto& folder) {
        PcapngBuilder builder;
        builder.interface({.linkType = 101});
        Bytes start = builder.bytes();
        const std::uint64_t length = std::uint64_t{1} << 31;
        little(start, 0xBAD), little(start, length);
        return saveBomb(folder, start, Bytes(1 << 20, 0), static_cast<std::int64_t>(length), 0);
    });
    add("PacketsThatUnpack", [](const auto& folder) {
        // Each record of sixteen zeros is a packet without bytes.
        return saveBomb(folder, Attack().bytes(), Bytes(1 << 20, 0), 256 << 20, 16 << 20);
    }).isWorkForLong = true;
    add("LargePacketsThatUnpack", [](const auto& folder) {
        Attack attack;
        const Bytes payload = repeated(record(23, Bytes(16'000, 0)), 130);
        for (int i = 0; i < 100; ++i) attack.segment(i, {.sequence = 1'001}, payload);
        return save(folder, zstdOf(attack.bytes()),
                    {.packets = attack.packets(), .connections = attack.connections(), .unpacked = std::ssize(attack.bytes())});
    });
    // What is unpacked is read from a temporary file, whose pages may not stay.
    for (const auto& ofPlain : {packetShapes(), streamShapes()})
        for (const Shape& shape : ofPlain) {
            if (shape.name != "OpeningsAndEnds" && shape.name != "ManyShortConnections" && !shape.name.starts_with("SegmentsOver")) continue;
            add(shape.name + "Packed", [make = shape.make](const auto& folder) {
                Made made = make(folder);
                const Data bytes = readFile(folder / "capture");
                const Bytes packed = zstdOf(Bytes(bytes.view().begin(), bytes.view().end()));
                writeFile(folder / "capture", DataView(packed.data(), std::ssize(packed)));
                made.unpacked = bytes.size();
                return made;
            });
        }
    addBytes("GzipInGzip", [] { return gzipped(gzipped(gzipped(ordinary(3).bytes()))); });
    add("GzipOfMembers", [](const auto& folder) {
        Bytes bytes = gzipped(ordinary(3).bytes());
        put(bytes, repeated(gzipped({}), 100'000));
        return save(folder, bytes, {.packets = 1'000, .connections = 3, .unpacked = 1'000});
    });
    addBytes("GzipThatIsCut", [] {
        Bytes bytes = gzipped(ordinary(300).bytes());
        bytes.resize(bytes.size() / 2);
        return bytes;
    });
    addBytes("ZstdThatIsDamaged", [] {
        Bytes bytes = zstdOf(ordinary(300).bytes());
        bytes[bytes.size() / 2] ^= 0xFF;
        return bytes;
    });
    add("ZstdOfFramesToSkip", [](const auto& folder) {
        Bytes skip{0x50, 0x2A, 0x4D, 0x18, 0, 0, 0, 0}, bytes = repeated(skip, 200'000);
        put(bytes, zstdOf(ordinary(3).bytes()));
        return save(folder, bytes, {.packets = 1'000, .connections = 3, .unpacked = 10'000});
    });
    addBytes("LZ4OfEmptyFrames", [] {
        Bytes bytes = lz4Of(ordinary(3).bytes());
        return put(bytes, repeated(lz4Of({}), 50'000));
    });
    return shapes;
}

}  // namespace sealscope::hostile
