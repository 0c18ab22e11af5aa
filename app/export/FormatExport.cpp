// SPDX-License-Identifier: Apache-2.0
#include "app/export/FormatExport.h"

#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

/// The next exchanges of a stream, as an interpretation of their own.
StreamInterpretation nextPart(StreamExchangeReader& reader)
{
    constexpr std::size_t mostMessages = 256, bytesAtOnce = 1 << 19;
    StreamInterpretation part{.pairings = std::vector<Pairing>()};
    std::size_t bytes = 0;
    for (Exchange exchange; reader.nextTime() && part.messages.size() < mostMessages && bytes < bytesAtOnce;) {
        reader.next(exchange);
        bytes += heldBytes(exchange);
        const std::int64_t position = std::ssize(part.messages);
        if (exchange.request && exchange.reply)
            part.pairings->push_back({.requestIndex = position, .replyIndex = position + 1, .status = PairingStatus::matched});
        else if (exchange.request)
            part.pairings->push_back({.requestIndex = position});
        for (auto* const message : {&exchange.request, &exchange.reply})
            if (*message) part.messages.push_back(*std::exchange(*message, std::nullopt));
    }
    return part;
}

}  // namespace

bool exportStreams(const Session& session, const std::vector<std::int64_t>& streams, const StreamExportFormat& format, OutputFile& file,
                   const std::stop_token& stop)
{
    struct Interpreted {
        TCPStream stream;
        std::optional<StreamInterpretation> interpretation;
        std::unique_ptr<StreamExchangeReader> exchanges;  ///< in place of its messages
    };
    const auto interpret = [&](std::int64_t number) {
        Interpreted interpreted{.stream = session.stream(number)};
        if (!session.plugIns().interpreter(interpreted.stream)) return interpreted;
        // A secured stream that does not open has nothing for a format but itself.
        interpreted.interpretation.emplace();
        if (format.wantsExchangesAlone)
            interpreted.exchanges = applicationExchanges(session, interpreted.stream);
        else if (auto messages = applicationInterpretation(session, interpreted.stream))
            interpreted.interpretation = std::move(messages);
        return interpreted;
    };
    // A request of some bytes is told in hundreds, and fields are repeated for a byte.
    const std::int64_t most = (std::int64_t{448} << 20) + 6 * session.capture().bytesOfFiles();
    std::int64_t written = 0;
    const StreamExporter::Write write = [&](DataView bytes) {
        file.write(bytes);
        written += bytes.size();
        return file.isGood();
    };
    std::size_t added = 0;
    bool isWhole = true;
    const auto isWanted = [&](bool isMoreToCome) {
        if (isMoreToCome && written > most) isWhole = false;
        return file.isGood() && !stop.stop_requested() && isWhole;
    };
    const auto exporter = format.create();
    exporter->begin(write);
    const auto add = [&](Interpreted interpreted) {
        const auto& [stream, interpretation, exchanges] = interpreted;
        const bool isLast = ++added == streams.size();
        if (!interpretation) return isWanted(!isLast);
        exporter->add({.stream = stream, .interpretation = exchanges ? nextPart(*exchanges) : *interpretation}, write);
        while (exchanges && exchanges->nextTime() && isWanted(true))
            exporter->add({.stream = stream, .interpretation = nextPart(*exchanges)}, write);
        return isWanted(!isLast);
    };
    const auto weight = [&](std::int64_t number) { return session.packets(number) * usualPayload; };
    inOrder(streams, weight, interpret, add);
    exporter->end(write);
    return isWhole;
}

std::optional<std::string> exportedText(const TCPStream& stream, const StreamInterpretation& interpretation,
                                        const StreamExportFormat& format)
{
    constexpr std::size_t longest = 16 * 1'024 * 1'024;
    std::string text;
    const StreamExporter::Write write = [&](DataView bytes) {
        text += bytes.text();
        return text.size() <= longest;
    };
    const auto written = [&](const StreamInterpretation* content) {
        text.clear();
        const auto exporter = format.create();
        exporter->begin(write);
        if (content) exporter->add({.stream = stream, .interpretation = *content}, write);
        exporter->end(write);
        return text;
    };
    // A format may have a frame, which is there also when nothing is in it.
    const std::string frame = written(nullptr);
    std::string all = written(&interpretation);
    if (all == frame) return std::string();
    return all.size() > longest ? std::nullopt : std::optional(std::move(all));
}

}  // namespace sealscope
