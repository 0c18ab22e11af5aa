// SPDX-License-Identifier: Apache-2.0
#include "app/export/StreamDecryptor.h"

#include "app/export/PlaintextPacks.h"
#include "platform/OutputFile.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <oneapi/tbb/parallel_invoke.h>
#include <utility>

namespace sealscope {

namespace {

void writeZeros(OutputFile& file, std::int64_t count)
{
    static constexpr std::array<std::uint8_t, 65'536> zeros{};
    for (; count > 0; count -= std::ssize(zeros)) file.write(DataView(zeros).sub(0, count));
}

}  // namespace

OpenedStream StreamDecryptor::open(std::int64_t number) const
{
    const TCPStream stream = session_.stream(number);
    OpenedStream opened{.summary = session_.summary(number)};
    opened.canInterpret = session_.plugIns().isSecured(stream);
    if (!opened.canInterpret) return opened;
    opened.verdict = verdicts_.verdict(stream, ReportDepth::hellos);
    if (!opened.verdict || !opened.verdict->outcome.isDecrypted()) return opened;
    const std::optional<std::uint32_t> connection = output_.capture ? std::optional(output_.capture->addConnection(stream)) : std::nullopt;
    oneapi::tbb::parallel_invoke([&] { opened.client = open(stream, TCPSegment::Direction::clientToServer, connection); },
                                 [&] { opened.server = open(stream, TCPSegment::Direction::serverToClient, connection); });
    // How far each direction opened is known by now, except of one that could not be begun.
    if (!opened.client.report || !opened.server.report) {
        opened.verdict = verdicts_.verdict(stream, ReportDepth::opened);
    } else if (auto& report = opened.verdict->report) {
        report->client = *opened.client.report;
        report->server = *opened.server.report;
        const OpenedDirection& farther = opened.client.reach > opened.server.reach ? opened.client : opened.server;
        opened.verdict->probe = farther.probe;
        opened.verdict->reach = farther.reach;
    }
    return opened;
}

OpenedDirection StreamDecryptor::open(const TCPStream& stream, TCPSegment::Direction direction,
                                      std::optional<std::uint32_t> connection) const
{
    OpenedDirection opened;
    const auto reader = verdicts_.plaintextReader(stream, direction);
    if (!reader) return opened;

    std::optional<OutputFile> file;
    std::optional<PlaintextCapture::Direction> segments;
    if (connection) segments.emplace(*output_.capture, *connection, direction);
    const bool isClient = direction == TCPSegment::Direction::clientToServer;
    const std::string path =
        output_.folder.empty()
            ? std::string()
            : (std::filesystem::path(output_.folder) / fmt::format("stream-{}-{}.bin", stream.key.number, isClient ? "client" : "server"))
                  .string();
    GapFiller filler(output_.gaps, stream.data(direction));
    const auto fill = [&](const PlaintextGap& gap) {
        const GapFiller::Fill filling = filler.fill(gap);
        if (file) {
            opened.filledBytes += filling.zeros + std::ssize(filling.mark);
            writeZeros(*file, filling.zeros);
            file->write(DataView(filling.mark));
        }
        if (segments) segments->addGap(filling.zeros, filling.passed);
    };
    std::int64_t end = 0;  // of the last record's body
    forEachPack(*reader, stream.data(direction).size(), [&](const PlaintextPack& pack) {
        if (!path.empty() && !file) {
            auto created = OutputFile::create(path, output_.existing, OutputFile::Kind::regular);
            if (!created) {
                opened.problem = FileProblem{path, created.error()};
                return false;
            }
            file.emplace(std::move(*created));
            // Lost bytes count in the size, however many, and have no plaintext.
            file->reserve(stream.data(direction).size() - stream.data(direction).holeBytes());
        }
        opened.bytes += pack.bytes().size();
        end = pack.records().back().body.upper;
        if (file && !pack.hasGaps()) file->write(pack.bytes());
        if (segments || (file && pack.hasGaps())) {
            std::int64_t offset = 0, written = pack.hasGaps() ? 0 : pack.bytes().size();
            const auto writeUpTo = [&](std::int64_t to) {
                if (file && to > written) file->write(pack.bytes().sub(written, to - written));
                written = std::max(written, to);
            };
            for (const PlaintextPack::Record& record : pack.records()) {
                if (record.gap) {
                    writeUpTo(offset);
                    fill(*record.gap);
                }
                const DataView plaintext = pack.bytes().sub(std::exchange(offset, offset + record.length), record.length);
                if (segments) segments->add(plaintext, stream.locate(record.body, direction));
            }
            writeUpTo(offset);
        }
        return !stop_.stop_requested() && (!file || file->isGood());
    });
    opened.report = reader->report();
    opened.probe = reader->probe().name();
    opened.reach = reader->probe().reach();
    if (opened.report && opened.bytes > 0) {
        for (const PlaintextGap& gap : opened.report->gaps)
            if (gap.range.lower >= end) fill(gap);
    }
    if (!file) return opened;
    if (const auto finished = file->finish())
        opened.file = path;
    else
        opened.problem = FileProblem{path, finished.error()};
    return opened;
}

}  // namespace sealscope
