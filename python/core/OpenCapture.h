// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/export/GapFilling.h"
#include "app/export/Objects.h"
#include "app/session/Session.h"
#include "app/verdict/StreamVerdict.h"
#include "python/core/Lines.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

namespace sealscope::python {

/// A capture that cannot be read, as what is thrown.
struct CaptureFailure : std::runtime_error {
    explicit CaptureFailure(CaptureError failed) : std::runtime_error(failed.text()), error(std::move(failed)) {}
    CaptureError error;
};

/// A stream that is wanted in the clear, and does not open.
struct ClosedStream : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Writes lines about streams of a session until `take` gives false. `numbers` are ascending.
struct StreamLines {
    StreamLines() = delete;

    using Numbers = std::vector<std::int64_t>;
    static Numbers all(const Session& session);
    static void streams(const Session& session, const StreamVerdicts& verdicts, const Numbers& numbers, const Lines::Take& take,
                        const std::stop_token& stop);
    static void exchanges(const Session& session, const Numbers& numbers, const Lines::Take& take, const std::stop_token& stop);
    /// Saves objects into a folder; without one ("") they are only measured.
    static void objects(const Session& session, const Numbers& numbers, const std::string& folder, ObjectFolder::Existing existing,
                        const Lines::Take& take, const std::stop_token& stop);
    static void messages(const Session& session, std::int64_t number, const Lines::Take& take, const std::stop_token& stop);
};

/// The bytes that one side sent, decrypted where they were protected, in pieces of some hundred kilobytes.
class Plaintext {
public:
    Plaintext(std::shared_ptr<const Session> session, std::int64_t stream, TCPSegment::Direction direction);
    /// The next piece; empty at the end.
    std::string next();

private:
    std::shared_ptr<const Session> session_;
    TCPStream stream_;
    TCPSegment::Direction direction_;
    bool isProtected_ = false;
    GapFiller filler_;
    std::int64_t zeros_ = 0;  ///< that come next
    std::string waiting_;     ///< what comes behind them
    std::int64_t end_ = 0;    ///< of the last record's body
    std::unique_ptr<PlaintextReader> reader_;
    std::int64_t offset_ = 0;
    std::vector<std::uint8_t> room_;
};

/// One opened capture as the module holds it. Any thread may call it.
class OpenCapture {
public:
    OpenCapture(SessionOptions options, std::stop_token stop);

    const Session& session() const { return *session_; }
    std::shared_ptr<const Session> sharedSession() const { return session_; }
    std::vector<CaptureError> errors() const;
    /// A number that the capture has, or an std::out_of_range.
    std::int64_t checked(std::int64_t stream) const;

    std::unique_ptr<Lines> packets() const;
    std::unique_ptr<Lines> streams(StreamLines::Numbers numbers) const;
    std::unique_ptr<Lines> exchanges(StreamLines::Numbers numbers) const;
    std::unique_ptr<Lines> objects(StreamLines::Numbers numbers, std::string folder, ObjectFolder::Existing existing) const;
    std::unique_ptr<Lines> messages(std::int64_t stream) const;

private:
    StreamLines::Numbers wanted(StreamLines::Numbers numbers) const;

    SessionOptions options_;
    std::shared_ptr<const Session> session_;
    std::shared_ptr<const StreamVerdicts> verdicts_;
};

/// A session, or a CaptureFailure.
std::unique_ptr<Session> openedSession(SessionOptions options);

}  // namespace sealscope::python
