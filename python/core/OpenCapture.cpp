// SPDX-License-Identifier: Apache-2.0
#include "python/core/OpenCapture.h"

#include "app/export/Objects.h"
#include "app/records/ExchangeRecords.h"
#include "app/records/MessageRecords.h"
#include "app/records/PacketRecords.h"
#include "app/records/StreamRecords.h"
#include "app/records/VerdictSentence.h"
#include "app/session/ExchangesInOrder.h"
#include "app/session/InOrder.h"
#include "app/session/PacketRowReader.h"
#include "app/session/ResumedSessions.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <numeric>
#include <utility>

namespace sealscope::python {

StreamLines::Numbers StreamLines::all(const Session& session)
{
    Numbers numbers(static_cast<std::size_t>(session.streamCount()));
    std::iota(numbers.begin(), numbers.end(), std::int64_t{0});
    return numbers;
}

void StreamLines::streams(const Session& session, const StreamVerdicts& verdicts, const Numbers& numbers, const Lines::Take& take,
                          const std::stop_token& stop)
{
    const auto look = [&](std::int64_t number) {
        std::string line;
        if (!stop.stop_requested()) appendRecord(line, streamRow(session, verdicts, number));
        return line;
    };
    inOrder(numbers, [](std::int64_t) { return usualPayload; }, look, take);
}

void StreamLines::exchanges(const Session& session, const Numbers& numbers, const Lines::Take& take, const std::stop_token& stop)
{
    exchangesInOrder(session, numbers,
                     {.append =
                          [](std::string& line, const TCPStream& stream, const Exchange& exchange) {
                              appendRecord(line,
                                           {.number = stream.key.number, .client = stream.clientEndpoint, .server = stream.serverEndpoint},
                                           exchange);
                          },
                      .take = [&](std::string_view line) { return take(std::string(line)) && !stop.stop_requested(); },
                      .stop = stop});
}

void StreamLines::objects(const Session& session, const Numbers& numbers, const std::string& folder, ObjectFolder::Existing existing,
                          const Lines::Take& take, const std::stop_token& stop)
{
    ObjectFolder objects(folder, existing);
    saveObjects(session, numbers, objects, stop, [&](const SavedObject& object) {
        if (object.problem) throw CaptureFailure({.file = folder, .cause = object.problem->error, .packetsBefore = -1});
        std::string text;
        appendRecord(text, object);
        return take(std::move(text));
    });
}

void StreamLines::messages(const Session& session, std::int64_t number, const Lines::Take& take, const std::stop_token& stop)
{
    const TCPStream stream = session.stream(number);
    const VELStreamInterpreting* const interpreter = session.plugIns().interpreter(stream);
    if (!interpreter) return;
    if (interpreter->layer == StreamLayer::security) findResumedSession(session, stream);
    interpreter->tell(stream, session.plugIns().context(), [&](StreamPart& part) {
        for (const StreamMessage& message : part.messages) {
            std::string text;
            appendRecord(text, message);
            if (!take(std::move(text)) || stop.stop_requested()) return false;
        }
        return true;
    });
}

Plaintext::Plaintext(std::shared_ptr<const Session> session, std::int64_t stream, TCPSegment::Direction direction)
    : session_(std::move(session)), stream_(session_->stream(stream)), direction_(direction),
      isProtected_(session_->plugIns().isSecured(stream_)), filler_(GapFilling::zeros, stream_.data(direction))
{
    if (!isProtected_) return;
    const StreamVerdicts verdicts(*session_);
    reader_ = verdicts.plaintextReader(stream_, direction);
    if (reader_) return;
    const auto verdict = verdicts.verdict(stream_, ReportDepth::opened);
    if (verdict && verdict->outcome.isDecrypted()) return;
    throw ClosedStream(fmt::format("stream {}: {}", stream, verdict ? verdictSentence(*verdict, session_->summary(stream)) : "no probe"));
}

std::string Plaintext::next()
{
    constexpr std::int64_t piece = 256 * 1'024;
    std::string bytes;
    if (!isProtected_) {
        bytes.resize(static_cast<std::size_t>(std::min(piece, stream_.data(direction_).size() - offset_)));
        offset_ += stream_.data(direction_).copy(offset_, {reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()});
        return bytes;
    }
    room_.resize(PlaintextReader::largestRecord);
    while (std::ssize(bytes) < piece) {
        if (const std::int64_t count = std::min(zeros_, piece - std::ssize(bytes)); count > 0) {
            bytes.append(static_cast<std::size_t>(count), '\0');
            zeros_ -= count;
            continue;
        }
        bytes += std::exchange(waiting_, {});
        if (!reader_) break;
        if (const auto record = reader_->next(room_)) {
            if (record->gap) zeros_ += filler_.fill(*record->gap).zeros;
            (zeros_ > 0 ? waiting_ : bytes) += record->plaintext.text();
            end_ = record->body.upper;
            continue;
        }
        // What did not open behind the last record.
        if (const auto report = end_ > 0 ? reader_->report() : std::nullopt)
            for (const PlaintextGap& gap : report->gaps)
                if (gap.range.lower >= end_) zeros_ += filler_.fill(gap).zeros;
        reader_ = nullptr;
    }
    return bytes;
}

std::unique_ptr<Session> openedSession(SessionOptions options)
{
    auto session = Session::open(std::move(options));
    if (!session) throw CaptureFailure(std::move(session.error()));
    return std::move(*session);
}

OpenCapture::OpenCapture(SessionOptions options, std::stop_token stop) : options_(std::move(options))
{
    SessionOptions opening = options_;
    opening.stop = std::move(stop);
    session_ = openedSession(std::move(opening));
    verdicts_ = std::make_shared<const StreamVerdicts>(*session_);
}

std::vector<CaptureError> OpenCapture::errors() const
{
    auto errors = session_->errors();
    std::ranges::move(session_->capture().lostFiles(), std::back_inserter(errors));
    return errors;
}

std::int64_t OpenCapture::checked(std::int64_t stream) const
{
    if (stream < 0 || stream >= session_->streamCount())
        throw std::out_of_range(fmt::format("stream {}: the capture has {} TCP connections", stream, session_->streamCount()));
    return stream;
}

StreamLines::Numbers OpenCapture::wanted(StreamLines::Numbers numbers) const
{
    if (numbers.empty()) return StreamLines::all(*session_);
    std::ranges::sort(numbers);
    const auto repeated = std::ranges::unique(numbers);
    numbers.erase(repeated.begin(), repeated.end());
    for (const std::int64_t number : numbers) checked(number);
    return numbers;
}

std::unique_ptr<Lines> OpenCapture::packets() const
{
    return std::make_unique<Lines>([options = options_](const Lines::Take& take, const std::stop_token& stop) {
        auto capture = Capture::open(options.files, {.filter = options.filter, .maximumPackets = options.maximumPackets, .stop = stop});
        if (!capture) throw CaptureFailure(std::move(capture.error()));
        const PacketAnalyzers analyzers;
        PacketRowReader reader(**capture, analyzers, stop, [](std::int64_t, std::int64_t) {});
        PacketRecords records;
        constexpr std::size_t many = 16 * 1'024;
        std::string text;
        for (PacketRow row; reader.next(row);) {
            records.append(text, row);
            if (text.size() >= many && !take(std::exchange(text, {}))) return;
        }
        if (!text.empty()) take(std::move(text));
    });
}

std::unique_ptr<Lines> OpenCapture::streams(StreamLines::Numbers numbers) const
{
    return std::make_unique<Lines>([session = session_, verdicts = verdicts_,
                                    numbers = wanted(std::move(numbers))](const Lines::Take& take, const std::stop_token& stop) {
        StreamLines::streams(*session, *verdicts, numbers, take, stop);
    });
}

std::unique_ptr<Lines> OpenCapture::exchanges(StreamLines::Numbers numbers) const
{
    return std::make_unique<Lines>(
        [session = session_, numbers = wanted(std::move(numbers))](const Lines::Take& take, const std::stop_token& stop) {
            StreamLines::exchanges(*session, numbers, take, stop);
        });
}

std::unique_ptr<Lines> OpenCapture::objects(StreamLines::Numbers numbers, std::string folder, ObjectFolder::Existing existing) const
{
    return std::make_unique<Lines>([session = session_, numbers = wanted(std::move(numbers)), folder = std::move(folder),
                                    existing](const Lines::Take& take, const std::stop_token& stop) {
        StreamLines::objects(*session, numbers, folder, existing, take, stop);
    });
}

std::unique_ptr<Lines> OpenCapture::messages(std::int64_t stream) const
{
    return std::make_unique<Lines>([session = session_, number = checked(stream)](const Lines::Take& take, const std::stop_token& stop) {
        StreamLines::messages(*session, number, take, stop);
    });
}

}  // namespace sealscope::python
