// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"

#include <functional>
#include <memory>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// One stream of a capture, with what the session's interpreters made of it.
struct ExportedStream {
    const TCPStream& stream;
    const StreamInterpretation& interpretation;
    bool isContinued = false;  ///< a further part of the stream before
};

/// Writes one capture in a format. Used by one thread, which hands it the streams one by one, in the order of their numbers.
class StreamExporter {
public:
    /// Takes the next bytes of the output; false when it is of no use to go on.
    using Write = std::function<bool(DataView)>;

    virtual ~StreamExporter() = default;
    /// Called once before the first stream.
    virtual void begin(const Write& write) = 0;
    virtual void add(const ExportedStream& stream, const Write& write) = 0;
    /// Called once after the last stream, also of a capture that was read in part.
    virtual void end(const Write& write) = 0;
};

/// A format that a plug-in offers, as a value. There is one for each; its address is its identity.
struct StreamExportFormat {
    std::string_view name;           ///< as users type it: "har"
    std::string_view description;    ///< one line, lower case
    std::string_view fileExtension;  ///< without the dot
    std::string_view mediaType;      ///< RFC 6838
    std::unique_ptr<StreamExporter> (*create)() = nullptr;
    /// Whether it wants nothing but requests and replies: a stream with many of them is added in parts.
    bool wantsExchangesAlone = false;
    /// Whether it wants all messages, and takes those of a stream that has many in parts as well. Of no account where it wants
    /// exchanges alone.
    bool takesParts = false;
};

}  // namespace sealscope SEALSCOPE_API
