// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/export/GapFilling.h"
#include "app/export/PlaintextCapture.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "platform/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

namespace sealscope {

/// What came out of one direction of a stream.
struct OpenedDirection {
    std::int64_t bytes = 0;
    std::int64_t filledBytes = 0;  ///< beside them, in place of what did not open
    std::string file;     ///< that holds them; empty when there is none
    std::optional<FileProblem> problem;  ///< with that file
    std::optional<TLSDirectionReport> report;
    std::string probe;  ///< that opened it
    DecryptionReach reach = DecryptionReach::strict;
};

struct OpenedStream {
    StreamSummary summary;
    bool canInterpret = false;
    std::optional<StreamVerdict> verdict;
    OpenedDirection client;
    OpenedDirection server;
};

/// Where plaintext goes.
struct DecryptorOutput {
    std::string folder;                           ///< for `stream-N-client.bin` and `stream-N-server.bin`; empty for no files
    ExistingFile existing = ExistingFile::stays;  ///< with the name of one of them
    PlaintextCapture* capture = nullptr;          ///< takes the plaintext as packets; null for none
    GapFilling gaps = GapFilling::zeros;
};

/// Opens the streams of a session into files or a capture. Any thread may call it.
class StreamDecryptor {
public:
    /// What it is given outlives it.
    StreamDecryptor(const Session& session, DecryptorOutput output, std::stop_token stop)
        : session_(session), output_(std::move(output)), stop_(std::move(stop)), verdicts_(session)
    {}

    OpenedStream open(std::int64_t number) const;

private:
    OpenedDirection open(const TCPStream& stream, TCPSegment::Direction direction, std::optional<std::uint32_t> connection) const;

    const Session& session_;
    DecryptorOutput output_;
    std::stop_token stop_;
    StreamVerdicts verdicts_;
};

}  // namespace sealscope
