// SPDX-License-Identifier: Apache-2.0
#include "tests/hostile/Shape.h"

#include <algorithm>

namespace sealscope::hostile {

std::vector<Shape> streamShapes()
{
    std::vector<Shape> shapes;
    const auto add = [&](std::string name, std::function<void(Attack&)> make) -> Shape& {
        return shapes.emplace_back(Shape{.name = std::move(name), .make = [make](const auto& folder) {
                                             Attack attack;
                                             make(attack);
                                             return save(folder, attack);
                                         }});
    };
    const auto hellos = [](Attack& attack, std::int64_t connection = 0) {
        attack.open(connection);
        attack.send(connection, false, clientHello(serverName("example.org")));
        attack.send(connection, true, serverHello());
    };
    constexpr std::int64_t farJump = 0x3FFF'0000;  // of which TCP still believes that it goes forward

    add("StreamOfTerabytesThatAreOnlyClaimed", [=](Attack& attack) {
        hellos(attack);
        for (int i = 0; i < 9'000; ++i) {
            attack.skip(0, true, farJump);
            attack.send(0, true, record(23, Bytes(16, 1)));
        }
    });
    add("HoleOfGigabytes", [=](Attack& attack) {
        hellos(attack);
        for (int i = 0; i < 16; ++i) {
            attack.skip(0, true, farJump);
            attack.send(0, true, record(23, Bytes(16, 1)));
        }
    });
    add("HoleOfATerabyte", [=](Attack& attack) {
        hellos(attack);
        for (int i = 0; i < 1'000; ++i) {
            attack.skip(0, true, farJump);
            attack.send(0, true, {0});
        }
    });
    add("HoleInsideARecord", [=](Attack& attack) {
        hellos(attack);
        for (int i = 0; i < 5'000; ++i) {
            Bytes bytes = record(23, Bytes(16'384, 1));
            bytes.resize(10);
            attack.send(0, true, bytes);
            attack.skip(0, true, 16'379);
        }
    });
    add("HoleInsideHandshakeRecords", [=](Attack& attack) {
        hellos(attack);
        // Headers of the longest records, whose bodies nobody sent: zeros read as messages of no length.
        for (int i = 0; i < 400; ++i) {
            attack.send(0, true, {22, 3, 3, 0x3F, 0xFF});
            attack.skip(0, true, 0x3FFF);
        }
    });
    add("HelloBehindHoles", [](Attack& attack) {
        attack.open(0);
        for (int i = 0; i < 1'000; ++i) {
            Bytes hello = clientHello();
            hello.resize(20);
            attack.send(0, false, hello);
            attack.skip(0, false, 16'000);
        }
    });
    add("SegmentsBackToFront", [](Attack& attack) {
        attack.open(0);
        const Bytes bytes = repeated(record(23, Bytes(95, 1)), 100'000);
        for (std::uint32_t i = 100'000; i-- > 0;) {
            const auto begin = bytes.begin() + i * 100;
            attack.segment(0, {.sequence = 1'001 + i * 100}, Bytes(begin, begin + 100));
        }
    });
    add("BytesOneByOneWithHolesBetween", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t half = 0; half < 2; ++half)
            for (std::uint32_t i = half; i < 120'000; i += 2)
                attack.segment(0, {.sequence = 1'001 + i}, {static_cast<std::uint8_t>(i % 5 == 0 ? 21 : 0)});
    });
    add("SegmentsOverEachOther", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t i = 0; i < 3'000; ++i) attack.segment(0, {.sequence = 1'001 + i}, Bytes(20'000, static_cast<std::uint8_t>(i)));
    });
    add("SegmentsThatContradict", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t i = 0; i < 40'000; ++i)
            attack.segment(0, {.sequence = 1'001 + i * 7 % 20'000}, Bytes(1'000, static_cast<std::uint8_t>(i)));
    });
    add("SequenceNumbersThatJump", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t i = 0; i < 100'000; ++i) attack.segment(0, {.sequence = i * 0x9E37'79B9}, record(23, Bytes(8, 1)));
    });
    add("JumpsAcrossHalfTheNumbers", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t i = 0; i < 60'000; ++i)
            attack.segment(0, {.sequence = 1'001 + i % 2 * 0x8000'0000 + i}, record(23, Bytes(8, 1)));
    });
    add("Acknowledgments", [](Attack& attack) {
        attack.open(0);
        for (std::uint32_t i = 0; i < 300'000; ++i) attack.segment(0, {.isFromServer = i % 2 == 0, .sequence = 1'001, .flags = 0x10});
    });
    add("ManyShortConnections", [=](Attack& attack) {
        for (int i = 0; i < 30'000; ++i) hellos(attack, i);
    }).isWorkForLong = true;
    return shapes;
}

}  // namespace sealscope::hostile
