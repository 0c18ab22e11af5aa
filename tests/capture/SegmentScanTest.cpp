// SPDX-License-Identifier: Apache-2.0
#include "app/capture/SegmentScan.h"

#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <oneapi/tbb/task_arena.h>

namespace sealscope {
namespace {

struct Scanned {
    std::vector<std::string> segments;
    std::int64_t packetsAhead = 0;
    std::string rest;  ///< what is told beside them
};

Scanned scan(const std::vector<std::string>& files, SegmentScan::Processors processors, std::int64_t mostSegments)
{
    Scanned scanned;
    const auto capture = Capture::open(files, {.randomAccess = true});
    if (!capture) return {.rest = capture.error().text()};
    SegmentScan scan(**capture, capture->get(), processors, 4'096);
    const auto worker = [] { return [](const SegmentBatch&) {}; };
    scan.run(worker, [&](const auto&, const SegmentBatch& batch) {
        for (const CapturedSegment& segment : batch) {
            const TCPPacket& tcp = segment.tcp;
            EXPECT_EQ((*capture)->bytes(tcp.payloadAddress, tcp.payload.size()), tcp.payload);
            scanned.segments.push_back(fmt::format("{} {} {} > {} {} {:02x} {} {}", batch.packetsBefore() + segment.packetNumber,
                                                   segment.time.value(), tcp.source.text(), tcp.destination.text(), tcp.sequenceNumber,
                                                   tcp.flags, tcp.payloadLength, hexText(tcp.payload.sub(0, 20))));
        }
        return std::ssize(scanned.segments) < mostSegments;
    });
    scanned.packetsAhead = scan.packetsAhead();
    std::vector<std::string> errors;
    for (const CaptureError& error : (*capture)->errors()) errors.push_back(error.text());
    if (std::ssize(scanned.segments) < mostSegments)
        scanned.rest = fmt::format("{} packets, {} damaged, {} incomplete, {}, {}", scan.packetCount(), scan.notes().damagedPackets,
                                   scan.notes().incompleteDatagrams, errors, std::string((*capture)->takeEmbeddedKeyLog()));
    return scanned;
}

/// Segments of all lengths, some of them in fragments, which carry a file of the same format: packets that only look like such.
std::vector<CapturePacket> download(const Data& file)
{
    TCPConversation conversation;
    conversation.open();
    conversation.send(TCPSegment::Direction::serverToClient, file);
    conversation.close();
    for (std::size_t i = 0; i < conversation.segments.size(); ++i)
        if (i % 7 == 3) conversation.segments[i].fragmentLength = 400;
    std::vector<CapturePacket> all = packets(conversation.segments);
    all[all.size() / 2].frame = Data(all[all.size() / 2].frame.view().sub(0, 40));
    all[all.size() / 2].originalLength = 40;
    // A datagram that is never whole.
    const auto fragment = std::ranges::find_if(all, [](const CapturePacket& packet) { return packet.frame.size() == 434; });
    if (fragment != all.end()) all.erase(fragment);
    return all;
}

TEST(SegmentScan, FindsOnSeveralProcessorsWhatOneFinds)
{
    const std::vector<CapturePacket> inner = download(patternBytes(400'000));
    const Data noise = patternBytes(200'000, 7);
    PcapngBuilder changing;
    const std::vector<CapturePacket> outer = download(pcapngFile(inner));
    changing.interface({});
    for (std::size_t i = 0; i < outer.size(); ++i) {
        if (i % 40 == 20) changing.block(0x0bad, patternBytes(300));
        if (i == outer.size() / 3) changing.interface({.resolution = 9}).secrets("one\n");
        if (i == outer.size() / 2) changing.section(std::endian::big).interface({}).interface({.resolution = 3}).secrets("two\n");
        changing.packet(outer[i], i >= outer.size() / 3 ? 1 : 0);
        if (i == outer.size() / 4) changing.block(6, Data{9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        if (i == outer.size() * 2 / 3) changing.simplePacket(outer[i]);
    }
    const auto cut = [](const Data& file) { return file.sub(0, file.size() - 1'000); };
    // Lengths that no longer agree end a file.
    const auto damaged = [](const Data& file) {
        std::vector<std::uint8_t> bytes(file.view().begin(), file.view().end());
        std::fill_n(bytes.begin() + std::ssize(bytes) * 2 / 3, 2'000, std::uint8_t{0xff});
        return Data(std::move(bytes));
    };
    struct Case {
        const char* name;
        Data file;
    };
    const Case cases[] = {
        {"pcap", pcapFile(download(pcapFile(inner)))},
        {"pcap, other byte order", pcapFile(download(pcapFile(inner, {.order = std::endian::big})), {.order = std::endian::big})},
        {"pcap, modified", pcapFile(download(noise), {.isModified = true})},
        {"pcap, cut", cut(pcapFile(download(pcapFile(inner))))},
        {"pcap, damaged", damaged(pcapFile(download(noise)))},
        {"pcapng", pcapngFile(outer, {.secretsBefore = "one\n", .secretsAfter = "two\n"})},
        {"pcapng that changes", changing.data()},
        {"pcapng, cut", cut(pcapngFile(outer))},
        {"pcapng, damaged", damaged(pcapngFile(outer))},
    };
    const TempDirectory directory;
    std::vector<std::string> files;
    const auto expectSame = [](const std::vector<std::string>& names, const char* what, std::int64_t most) {
        const Scanned one = scan(names, SegmentScan::Processors::one, most), all = scan(names, SegmentScan::Processors::all, most);
        EXPECT_GT(one.segments.size(), 50U) << what;
        EXPECT_EQ(one.packetsAhead, 0) << what;
        EXPECT_EQ(all.packetsAhead > 0, oneapi::tbb::this_task_arena::max_concurrency() > 1) << what;
        // Who has had enough takes the rest of a batch.
        EXPECT_TRUE(std::ranges::equal(one.segments, std::span(all.segments).first(std::min(one.segments.size(), all.segments.size()))))
            << what;
        EXPECT_EQ(all.rest, one.rest) << what;
        EXPECT_TRUE(most < 1'000 || all.segments.size() == one.segments.size()) << what;
    };
    for (const auto& [name, file] : cases) {
        files.push_back(directory.write(fmt::format("{}.pcap", name), file));
        expectSame({files.back()}, name, 1'000'000);
        expectSame({files.back()}, name, 100);
    }
    expectSame(files, "all files", 1'000'000);
}

}  // namespace
}  // namespace sealscope
