// SPDX-License-Identifier: Apache-2.0
#include "app/export/FormatExport.h"

#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

/// The next exchanges of a stream, `most` at most, as an interpretation of their own.
StreamInterpretation nextPart(StreamExchangeReader& reader, std::int64_t most)
{
    constexpr std::size_t mostMessages = 256, bytesAtOnce = 1 << 19;
    StreamInterpretation part{.pairings = std::vector<Pairing>()};
    std::size_t bytes = 0;
    for (Exchange exchange; most-- > 0 && reader.nextTime() && part.messages.size() < mostMessages && bytes < bytesAtOnce;) {
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

/// A part as an interpretation of its own, with the pairings inside it.
StreamInterpretation interpretationOf(StreamPart& part)
{
    const std::int64_t end = part.first + std::ssize(part.messages);
    StreamInterpretation own{.messages = std::move(part.messages), .pairings = std::vector<Pairing>()};
    for (Pairing& pairing : part.pairings) {
        const auto isInside = [&](std::int64_t index) { return index >= part.first && index < end; };
        if (!isInside(pairing.requestIndex) || (pairing.replyIndex && !isInside(*pairing.replyIndex))) continue;
        pairing.requestIndex -= part.first;
        if (pairing.replyIndex) *pairing.replyIndex -= part.first;
        own.pairings->push_back(std::move(pairing));
    }
    return own;
}

/// What was said in a stream, where it is little enough to be held.
struct FewMessages {
    StreamInterpretation interpretation = {.pairings = std::vector<Pairing>()};
    bool isAll = true;
};
FewMessages fewMessages(const Session& session, const TCPStream& stream)
{
    constexpr std::size_t most = 1 << 20;  // bytes
    FewMessages few;
    std::size_t bytes = 0;
    tellApplication(session, stream, [&](StreamPart& part) {
        for (const StreamMessage& message : part.messages) bytes += message.heldBytes();
        few.isAll = bytes <= most;
        if (few.isAll) {
            std::ranges::move(part.messages, std::back_inserter(few.interpretation.messages));
            std::ranges::move(part.pairings, std::back_inserter(*few.interpretation.pairings));
        }
        return few.isAll;
    });
    return few;
}

/// How many exchanges such a part has.
std::int64_t exchangesInPart(const StreamInterpretation& part)
{
    return std::ssize(part.messages) -
           std::ranges::count_if(*part.pairings, [](const Pairing& pairing) { return pairing.replyIndex.has_value(); });
}

}  // namespace

ExportEnding exportStreams(const Session& session, const std::vector<std::int64_t>& streams, const StreamExportFormat& format,
                           OutputFile& file, const std::stop_token& stop, std::int64_t mostMessages)
{
    struct Interpreted {
        TCPStream stream;
        std::optional<StreamInterpretation> interpretation;
        std::unique_ptr<StreamExchangeReader> exchanges;  ///< in place of its messages
        bool isLong = false;                              ///< its messages are read when its turn comes
    };
    const auto interpret = [&](std::int64_t number) {
        Interpreted interpreted{.stream = session.stream(number)};
        if (!session.plugIns().interpreter(interpreted.stream)) return interpreted;
        // A secured stream that does not open has nothing for a format but itself.
        interpreted.interpretation.emplace();
        if (format.wantsExchangesAlone)
            interpreted.exchanges = applicationExchanges(session, interpreted.stream);
        else if (format.takesParts) {
            FewMessages few = fewMessages(session, interpreted.stream);
            interpreted.isLong = !few.isAll;
            if (few.isAll) interpreted.interpretation = std::move(few.interpretation);
        } else if (auto messages = applicationInterpretation(session, interpreted.stream))
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
    auto ending = ExportEnding::complete;
    const auto isWanted = [&](bool isMoreToCome) {
        if (isMoreToCome && written > most) ending = ExportEnding::tooManyBytes;
        return file.isGood() && !stop.stop_requested() && ending == ExportEnding::complete;
    };
    const auto exporter = format.create();
    exporter->begin(write);
    const auto addStream = [&](Interpreted interpreted) {
        auto& [stream, interpretation, exchanges, isLong] = interpreted;
        const bool isLast = ++added == streams.size();
        if (!interpretation) return isWanted(!isLast);
        bool isContinued = false;
        const auto add = [&](const StreamInterpretation& messages) {
            exporter->add({.stream = stream, .interpretation = messages, .isContinued = std::exchange(isContinued, true)}, write);
        };
        const auto addPart = [&](StreamPart& part) {
            if (std::ssize(part.messages) > mostMessages) {
                cut(part, std::max<std::int64_t>(mostMessages, 0));
                ending = ExportEnding::tooManyMessages;
            }
            mostMessages -= std::ssize(part.messages);
            add(interpretationOf(part));
            return isWanted(true);
        };
        if (exchanges) {
            do {
                const StreamInterpretation part = nextPart(*exchanges, (mostMessages + 1) / 2);
                // An exchange counts as two messages, also where one is missing.
                mostMessages -= 2 * exchangesInPart(part);
                add(part);
                if (exchanges->nextTime() && mostMessages <= 0) ending = ExportEnding::tooManyMessages;
            } while (exchanges->nextTime() && isWanted(true));
        } else if (isLong) {
            tellApplication(session, stream, addPart);
        } else if (std::ssize(interpretation->messages) > mostMessages) {
            StreamPart part = partOf(*std::move(interpretation));
            addPart(part);
        } else {
            mostMessages -= std::ssize(interpretation->messages);
            add(*interpretation);
        }
        return isWanted(!isLast);
    };
    const auto weight = [&](std::int64_t number) { return session.weight(number); };
    inOrder(streams, weight, interpret, addStream);
    exporter->end(write);
    return ending;
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
