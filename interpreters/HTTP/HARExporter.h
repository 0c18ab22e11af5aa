// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELExporting.h"
#include "interpreters/HTTP/HARValues.h"

#include <utility>
#include <vector>

namespace sealscope {

/// Writes requests and replies as an HTTP archive (HAR 1.2), an entry each as the streams come. Bodies go out piece by piece; none is
/// held whole.
class HARExporter final : public StreamExporter {
public:
    static const StreamExportFormat format;

    void begin(const Write& write) override;
    void add(const ExportedStream& stream, const Write& write) override;
    void end(const Write& write) override;

private:
    using JSON = HARValues::JSON;

    void writeEntry(const ExportedStream& stream, const StreamMessage* request, const StreamMessage* reply,
                    const std::vector<const StreamMessage*>& webSocketMessages);
    void writeWebSocketMessage(const StreamMessage& message, TCPSegment::Direction asking);
    void writeRequest(const StreamMessage* request);
    void writeReply(const StreamMessage* reply);
    /// `"text":"…"` and what goes with it, of a body; its length.
    std::int64_t writeText(const StreamMessage& message, std::string_view encodingKey);
    enum class Form : std::uint8_t { base64, latin1, utf8 };
    /// What stands between its quotes; its length, and how it ends.
    std::pair<std::int64_t, StreamBody::Ending> writeBody(const StreamBody& body, Form form);
    void write(std::string_view text);

    const Write* write_ = nullptr;
    std::int64_t written_ = 0;               ///< bytes
    std::int64_t socketMessages_ = 200'000;  ///< that may still be written
    bool isStopped_ = false;
    bool hasEntries_ = false;
};

}  // namespace sealscope
