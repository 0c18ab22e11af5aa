// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/export/ExportJobs.h"

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
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace sealscope::desktop {

namespace {

std::string cancelled(const std::string& path) { return path + ": the export was cancelled"; }

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
            if (result.problem.empty()) result.problem = direction->problem;  // the others would only say the same
        source.progress(++done);
        return result.problem.empty() && !source.stop.stop_requested();
    };
    const auto weight = [&](std::int64_t number) { return source.session->packets(number) * usualPayload; };
    inOrder(source.streams, weight, [&](std::int64_t number) { return decryptor.open(number); }, take);
    return result;
}

std::string summaryOf(const Opened& opened, const std::string& path)
{
    std::string summary = fmt::format("{}: plaintext of {}, {}", path, counted(opened.decrypted, "stream"), sizeText(opened.bytes));
    if (opened.closed > 0) summary += fmt::format("; {} not decrypt", opened.closed == 1 ? "1 stream does" : fmt::format("{} streams do", opened.closed));
    return summary;
}

constexpr std::string_view nothingDecrypts = "none of the streams decrypts, so there is no plaintext; the list of streams says why";

std::expected<OutputFile, std::string> begun(const std::string& file)
{
    auto output = OutputFile::create(file, ExistingFile::isReplaced, OutputFile::Kind::anything);
    if (!output) return std::unexpected(file + ": " + output.error());
    return output;
}

/// Reads the files of a session again, with every block of theirs, and writes them with other secrets.
ExportOutcome copied(const ExportSource& source, const CaptureChanges& changes, const std::string& file, std::string summary)
{
    // The copy takes the place of an original only when it is whole, and reads from that one until then.
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    auto capture = Capture::open(source.session->capture().files(), {.randomAccess = true, .keepsEveryBlock = true, .stop = source.stop});
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (!capture) return {.problem = capture.error().text()};
    CapturedPacket packet;
    while ((*capture)->next(packet) && !source.stop.stop_requested()) {}
    if (!copyCapture(**capture, changes, *output, source.stop)) return {.problem = cancelled(file)};
    if (const std::string problem = output->finish(); !problem.empty()) return {.problem = file + ": " + problem};
    return {.summary = std::move(summary)};
}

}  // namespace

ExportOutcome exportPlaintextFiles(const ExportSource& source, const std::string& folder)
{
    if (const auto made = prepareOutputFolder(folder); !made) return {.problem = folder + ": " + made.error()};
    const Opened opened = openStreams(source, {.folder = folder});
    if (!opened.problem.empty()) return {.problem = opened.problem};
    if (source.stop.stop_requested()) return {.problem = cancelled(folder)};
    if (opened.decrypted == 0) return {.problem = std::string(nothingDecrypts)};
    return {.summary = summaryOf(opened, folder)};
}

ExportOutcome exportPlaintextCapture(const ExportSource& source, const std::string& file)
{
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    const std::string folder = std::filesystem::absolute(file).parent_path().string();
    auto capture = PlaintextCapture::create(folder);
    if (!capture) return {.problem = folder + ": " + capture.error()};
    const Opened opened = openStreams(source, {.capture = capture->get()});
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (opened.decrypted == 0) return {.problem = std::string(nothingDecrypts)};
    std::string problem = (*capture)->write(*output, source.stop);
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (problem.empty()) problem = output->finish();
    if (!problem.empty()) return {.problem = file + ": " + problem};
    return {.summary = summaryOf(opened, file)};
}

ExportOutcome exportWithSecrets(const ExportSource& source, const std::string& file)
{
    CollectedSecrets secrets = collectSecrets(*source.session, source.streams, source.stop);
    if (secrets.connections == 0 && !source.stop.stop_requested()) return {.problem = "there is no secret for any of the streams"};
    return copied(source, {.addedSecrets = std::move(secrets.keyLog)}, file,
                  fmt::format("{}: carries secrets for {}", file, counted(secrets.connections, "connection")));
}

ExportOutcome exportWithoutSecrets(const ExportSource& source, const std::string& file)
{
    return copied(source, {.dropsSecrets = true}, file, fmt::format("{}: carries no secret", file));
}

ExportOutcome exportObjects(const ExportSource& source, const std::string& folder)
{
    if (const auto made = prepareOutputFolder(folder); !made) return {.problem = folder + ": " + made.error()};
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
    if (count == 0) return {.problem = "no message of the streams has a body, so there is nothing to save"};
    std::string summary = fmt::format("{}: {}, {}", folder, counted(count, "object"), sizeText(bytes));
    if (incomplete > 0) summary += fmt::format("; {} incomplete", incomplete);
    return {.summary = std::move(summary)};
}

ExportOutcome exportFormat(const ExportSource& source, const StreamExportFormat& format, const std::string& file)
{
    auto output = begun(file);
    if (!output) return {.problem = output.error()};
    exportStreams(*source.session, source.streams, format, *output, source.stop);
    if (source.stop.stop_requested()) return {.problem = cancelled(file)};
    if (const std::string problem = output->finish(); !problem.empty()) return {.problem = file + ": " + problem};
    return {.summary = fmt::format("{}: {} as {}", file, counted(std::ssize(source.streams), "stream"), format.name)};
}

}  // namespace sealscope::desktop
