// SPDX-License-Identifier: Apache-2.0
#include "harness/DeterministicRandom.h"
#include "tests/hostile/Shape.h"

namespace sealscope::hostile {

namespace {

/// An IPv4 fragment: offset in units of 8 bytes, and whether more follow.
Bytes fragment(std::uint64_t identification, std::uint64_t offset, bool hasMore, const Bytes& payload, std::uint64_t source = 0x0A00'0001)
{
    Bytes ip;
    put16(put16(ip, 0x4500), 20 + payload.size());
    put16(put16(ip, identification), (hasMore ? 0x2000 : 0) | offset);
    put32(ip, 0x4006'0000);
    put32(put32(ip, source), 0xC000'0201);
    return put(ip, payload);
}

/// A packet inside `depth` others.
Bytes nested(int depth, std::uint8_t protocol, const Bytes& between)
{
    Bytes packet = Attack::packet(1, {.sequence = 1'001}, clientHello());
    for (int i = 0; i < depth; ++i) {
        Bytes outer;
        put16(put16(outer, 0x4500), 20 + between.size() + packet.size());
        put32(outer, 0);
        put16(put8(put8(outer, 64), protocol), 0);
        put32(put32(outer, 0x0A00'0001), 0x0A00'0002);
        packet = put(put(outer, between), packet);
    }
    return packet;
}

}  // namespace

std::vector<Shape> packetShapes()
{
    std::vector<Shape> shapes;
    const auto add = [&](std::string name, std::function<void(Attack&)> make, std::uint32_t linkType = 101) -> Shape& {
        return shapes.emplace_back(Shape{.name = std::move(name), .make = [make, linkType](const auto& folder) {
                                             Attack attack(linkType);
                                             make(attack);
                                             return save(folder, attack);
                                         }});
    };
    add("FirstFragments", [](Attack& attack) {
        for (std::uint64_t i = 0; i < 150'000; ++i) attack.frame(fragment(i, 0, true, Bytes(8, 1), 0x0A00'0000 + (i >> 16)));
    });
    add("LastFragments", [](Attack& attack) {
        for (std::uint64_t i = 0; i < 150'000; ++i) attack.frame(fragment(i, 0x1FF, false, Bytes(8, 1), 0x0A00'0000 + (i >> 16)));
    });
    add("FragmentsThatDifferInWhatAHashLosesFirst", [](Attack& attack) {
        for (std::uint64_t i = 0; i < 100'000; ++i) attack.frame(fragment(0, 0, true, Bytes(8, 1), i << 12));
    });
    add("DatagramsOfTinyFragments", [](Attack& attack) {
        for (std::uint64_t datagram = 0; datagram < 12; ++datagram)
            for (std::uint64_t i = 0; i < 8'100; ++i) attack.frame(fragment(datagram, i, i < 8'099, Bytes(8, 22)));
    });
    add("FragmentsBackToFront", [](Attack& attack) {
        for (std::uint64_t datagram = 0; datagram < 12; ++datagram)
            for (std::uint64_t i = 8'100; i-- > 0;) attack.frame(fragment(datagram, i, i < 8'099, Bytes(8, 22)));
    });
    add("FragmentsOverEachOther", [](Attack& attack) {
        for (std::uint64_t i = 0; i < 40'000; ++i) attack.frame(fragment(1, i % 8'000, true, Bytes(500, 22)));
    });
    add("PacketsInPackets", [](Attack& attack) {
        for (int i = 0; i < 200; ++i) attack.frame(nested(2'000, 4, {}));
    });
    add("TunnelsInTunnels", [](Attack& attack) {
        for (int i = 0; i < 200; ++i) attack.frame(nested(1'500, 47, {0, 0, 8, 0}));
    });
    add(
        "TagsInTags",
        [](Attack& attack) {
            Bytes tags(12, 2);
            for (int i = 0; i < 15'000; ++i) put32(tags, 0x8100'0001);
            put(put16(tags, 0x0800), Attack::packet(1, {.sequence = 1'001}, clientHello()));
            for (int i = 0; i < 200; ++i) attack.frame(tags);
        },
        1);
    add(
        "LabelsOnLabels",
        [](Attack& attack) {
            Bytes labels(12, 2);
            put16(labels, 0x8847);
            for (int i = 0; i < 15'000; ++i) put32(labels, 0x0001'0040);
            for (int i = 0; i < 200; ++i) attack.frame(labels);
        },
        1);
    add("ExtensionHeaders", [](Attack& attack) {
        Bytes ip;
        put32(ip, 0x6000'0000);
        put16(put16(ip, 64'000), 0x003C);  // destination options, one behind the other
        put(ip, Bytes(32, 1));
        put(ip, repeated({60, 0, 1, 4, 0, 0, 0, 0}, 8'000));
        for (int i = 0; i < 100; ++i) attack.frame(ip);
    });
    add("OptionsThatEndNowhere", [](Attack& attack) {
        for (int i = 0; i < 50'000; ++i) attack.segment(1, {.sequence = 1'001, .options = Bytes(40, static_cast<std::uint8_t>(i))});
    });
    add("Noise", [](Attack& attack) {
        RandomSequence random(1);
        for (int i = 0; i < 40'000; ++i) {
            Bytes bytes = Attack::packet(i % 100, {.sequence = 1'001}, clientHello());
            for (int k = 0; k < 4; ++k) bytes[random.next() % bytes.size()] = static_cast<std::uint8_t>(random.next());
            bytes.resize(random.next() % bytes.size());
            attack.frame(bytes);
        }
    });
    add("Openings", [](Attack& attack) {
        for (int i = 0; i < 250'000; ++i) attack.segment(i, {.sequence = 1'000, .flags = 0x02});
    }).isWorkForLong = true;
    add("OpeningsOfOneConnection", [](Attack& attack) {
        for (std::uint32_t i = 0; i < 150'000; ++i) attack.segment(1, {.sequence = i * 1'000'003, .flags = 0x02});
    });
    add("OpeningsAndEnds", [](Attack& attack) {
        for (std::uint32_t i = 0; i < 60'000; ++i) {
            attack.segment(1, {.sequence = i * 5'000, .flags = 0x02});
            attack.segment(1, {.sequence = i * 5'000 + 1}, record(21, {1, 0}));
            attack.segment(1, {.isFromServer = true, .sequence = i, .flags = 0x14});
        }
    });
    return shapes;
}

}  // namespace sealscope::hostile
