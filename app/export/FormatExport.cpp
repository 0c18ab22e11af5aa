// SPDX-License-Identifier: Apache-2.0
#include "app/export/FormatExport.h"

#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"

#include <optional>
#include <utility>

namespace sealscope {

void exportStreams(const Session& session, const std::vector<std::int64_t>& streams, const StreamExportFormat& format, OutputFile& file,
                   const std::stop_token& stop)
{
    struct Interpreted {
        TCPStream stream;
        std::optional<StreamInterpretation> interpretation;
    };
    const auto interpret = [&](std::int64_t number) {
        Interpreted interpreted{.stream = session.stream(number)};
        // A secured stream that does not open has nothing for a format but itself.
        if (session.plugIns().interpreter(interpreted.stream))
            interpreted.interpretation = applicationInterpretation(session, interpreted.stream).value_or(StreamInterpretation());
        return interpreted;
    };
    const StreamExporter::Write write = [&](DataView bytes) {
        file.write(bytes);
        return file.isGood();
    };
    const auto exporter = format.create();
    exporter->begin(write);
    const auto add = [&](Interpreted interpreted) {
        if (interpreted.interpretation) exporter->add({.stream = interpreted.stream, .interpretation = *interpreted.interpretation}, write);
        return file.isGood() && !stop.stop_requested();
    };
    const auto weight = [&](std::int64_t number) { return session.packets(number) * usualPayload; };
    inOrder(streams, weight, interpret, add);
    exporter->end(write);
}

std::optional<std::string> exportedText(const TCPStream& stream, const StreamInterpretation& interpretation, const StreamExportFormat& format)
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
