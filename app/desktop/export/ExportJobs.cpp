// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/export/ExportJobs.h"

#include "app/desktop/StringTableTranslator.h"
#include "app/export/CaptureCopy.h"
#include "app/export/CollectedSecrets.h"
#include "app/export/FormatExport.h"
#include "app/export/Objects.h"
#include "app/export/OutputFolder.h"
#include "app/export/PlaintextCapture.h"
#include "app/export/StreamDecryptor.h"
#include "app/session/InOrder.h"
#include "app/texts/SizeText.h"
#include "platform/OutputFile.h"

#include <expected>
#include <filesystem>
#include <utility>

namespace sealscope::desktop {

namespace {

std::string cancelled(const std::string& path) { return windowReader().say("{}: the export was cancelled", path); }
std::string failed(const std::string& path, const std::string& reason) { return windowReader().say("{}: {}", path, reason); }

/// What came of opening streams.
struct Opened {
    std::int64_t decrypted = 0;
    std::int64_t closed = 0;
    std::int64_t bytes = 0;
    std::string problem;
};

Opened openStreams(const ExportSource& source, DecryptorOutput output)
{
    const StreamDecryptor decryptor(*source.session, std::move(output), source.stop);
    Opened result;
    std::int64_t done = 0;
    const auto take = [&](const OpenedStream& opened) {
        const bool isDecrypted = opened.verdict && opened.verdict->outcome.isDecrypted();
        result.decrypted += isDecrypted;
        result.closed += opened.canInterpret && !isDecrypted;
        result.bytes += opened.client.bytes + opened.server.bytes;
        for (const OpenedDirection* direction : {&opened.client, &opened.server})
            if (result.problem.empty() && direction->problem)
                result.problem = direction->problem->text();  // the others would only say the same
        source.progress(++done);
        return result.problem.empty() && !source.stop.stop_requested();
    };
    const auto weight = [&](std::int64_t number) { return source.session->packets(number) * usualPayload; };
    inOrder(source.streams, weight, [&](std::int64_t number) { return decryptor.open(number); }, take);
    return result;
}

std::string summaryOf(const Opened& opened, const std::string& path)
{
    const SentenceReader reader = windowReader();
    std::string summary = reader.sayOf(opened.decrypted, "{}: plaintext of {} stream, {}", "{}: plaintext of {} streams, {}", path,
                                       opened.decrypted, sizeText(opened.bytes, reader));
    if (opened.closed == 0) return summary;
    summary += reader.word("; ");
    return summary += reader.sayOf(opened.closed, "{} stream does not decrypt", "{} streams do not decrypt", opened.closed);
}

std::string nothingDecrypts()
{
    return windowReader().say("none of the streams decrypts, so there is no plaintext; the list of streams says why");
}

std::expected<OutputFile, std::string> begun(const std::string& file)
{
    auto output = OutputFile::create(file, ExistingFile::isReplaced, OutputFile::Kind::anything);
    if (!output) return std::unexpected(failed(file, output.error().text()));
    return *std::move(output);
}

/// Reads the files of a session again, with every block of theirs, and writes them with other secrets.
ExportOutcome copied(const ExportSource& source, const CaptureChanges& changes, const std::string& file, std::string summary)
{
    // The copy takes the place of an original only when it is whole, and reads from that one until then.
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    auto capture = Capture::open(source.session->capture().files(),
                                 {.randomAccess = true, .keepsEveryBlock = true, .stop = source.stop, .reader = windowReader()});
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (!capture) return {.problem = capture.error().text(windowReader())};
    CapturedPacket packet;
    while ((*capture)->next(packet) && !source.stop.stop_requested()) {}
    if (!copyCapture(**capture, changes, *output, source.stop)) return {.problem = cancelled(file)};
    if (const auto finished = output->finish(); !finished) return {.problem = failed(file, finished.error().text())};
    return {.summary = std::move(summary)};
}

}  // namespace

ExportOutcome exportPlaintextFiles(const ExportSource& source, const std::string& folder)
{
    if (const auto made = prepareOutputFolder(folder); !made) return {.problem = failed(folder, made.error().text())};
    const Opened opened = openStreams(source, {.folder = folder});
    if (!opened.problem.empty()) return {.problem = opened.problem};
    if (source.stop.stop_requested()) return {.problem = cancelled(folder)};
    if (opened.decrypted == 0) return {.problem = nothingDecrypts()};
    return {.summary = summaryOf(opened, folder)};
}

ExportOutcome exportPlaintextCapture(const ExportSource& source, const std::string& file)
{
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    const std::string folder = std::filesystem::absolute(file).parent_path().string();
    auto capture = PlaintextCapture::create(folder);
    if (!capture) return {.problem = failed(folder, capture.error())};
    const Opened opened = openStreams(source, {.capture = capture->get()});
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (opened.decrypted == 0) return {.problem = nothingDecrypts()};
    const auto written = (*capture)->write(*output, source.stop);
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (!written) return {.problem = failed(file, written.error())};
    if (const auto finished = output->finish(); !finished) return {.problem = failed(file, finished.error().text())};
    return {.summary = summaryOf(opened, file)};
}

ExportOutcome exportWithSecrets(const ExportSource& source, const std::string& file)
{
    CollectedSecrets secrets = collectSecrets(*source.session, source.streams, source.stop);
    if (secrets.connections == 0 && !source.stop.stop_requested())
        return {.problem = windowReader().say("there is no secret for any of the streams")};
    return copied(source, {.addedSecrets = std::move(secrets.keyLog)}, file,
                  windowReader().sayOf(secrets.connections, "{}: carries secrets for {} connection",
                                       "{}: carries secrets for {} connections", file, secrets.connections));
}

ExportOutcome exportWithoutSecrets(const ExportSource& source, const std::string& file)
{
    return copied(source, {.dropsSecrets = true}, file, windowReader().say("{}: carries no secret", file));
}

ExportOutcome exportObjects(const ExportSource& source, const std::string& folder)
{
    if (const auto made = prepareOutputFolder(folder); !made) return {.problem = failed(folder, made.error().text())};
    ObjectFolder objects(folder, ObjectFolder::Existing::kept);
    std::int64_t count = 0, bytes = 0, incomplete = 0;
    std::string problem;
    saveObjects(*source.session, source.streams, objects, source.stop, [&](const SavedObject& object) {
        problem = object.problem;
        ++count;
        bytes += object.bytes;
        incomplete += !object.isComplete;
        return problem.empty();
    });
    if (!problem.empty()) return {.problem = problem};
    if (source.stop.stop_requested()) return {.problem = cancelled(folder)};
    if (count == 0) return {.problem = windowReader().say("no message of the streams has a body, so there is nothing to save")};
    const SentenceReader reader = windowReader();
    std::string summary = reader.sayOf(count, "{}: {} object, {}", "{}: {} objects, {}", folder, count, sizeText(bytes, reader));
    if (incomplete > 0) (summary += reader.word("; ")) += reader.say("{} incomplete", incomplete);
    return {.summary = std::move(summary)};
}

ExportOutcome exportFormat(const ExportSource& source, const StreamExportFormat& format, const std::string& file)
{
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    exportStreams(*source.session, source.streams, format, *output, source.stop);
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (const auto finished = output->finish(); !finished) return {.problem = failed(file, finished.error().text())};
    const std::int64_t count = std::ssize(source.streams);
    return {.summary = windowReader().sayOf(count, "{}: {} stream as {}", "{}: {} streams as {}", file, count, format.name)};
}

}  // namespace sealscope::desktop
