// SPDX-License-Identifier: Apache-2.0
#include "app/export/FormatExport.h"

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
    const SessionPlugIns& plugIns = session.plugIns();
    const auto interpret = [&](std::int64_t number) {
        Interpreted interpreted{.stream = session.stream(number)};
        if (const auto* interpreter = plugIns.interpreter(interpreted.stream))
            interpreted.interpretation = interpreter->interpret(interpreted.stream, plugIns.context());
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

}  // namespace sealscope
