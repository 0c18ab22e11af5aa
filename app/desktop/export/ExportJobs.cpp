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
#include <optional>
#include <utility>

namespace sealscope::desktop {

namespace {

std::unexpected<ExportError> failed(ExportError error) { return std::unexpected(std::move(error)); }
std::unexpected<ExportError> cancelled(const std::string& path) { return failed(ExportCancelled{path}); }

/// What came of opening streams.
struct Opened {
    std::int64_t decrypted = 0;
    std::int64_t closed = 0;
    std::int64_t bytes = 0;
    std::optional<FileProblem> problem;
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
            if (!result.problem) result.problem = direction->problem;  // the others would only say the same
        source.progress(++done);
        return !result.problem && !source.stop.stop_requested();
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

std::expected<OutputFile, ExportError> begun(const std::string& file)
{
    auto output = OutputFile::create(file, ExistingFile::isReplaced, OutputFile::Kind::anything);
    if (!output) return failed(FileProblem{file, output.error()});
    return *std::move(output);
}

ExportOutcome finished(OutputFile& output, const std::string& file, std::string summary)
{
    if (const auto finished = output.finish(); !finished) return failed(FileProblem{file, finished.error()});
    return summary;
}

/// Reads the files of a session again, with every block of theirs, and writes them with other secrets.
ExportOutcome copied(const ExportSource& source, const CaptureChanges& changes, const std::string& file, std::string summary)
{
    // The copy takes the place of an original only when it is whole, and reads from that one until then.
    auto output = begun(file);
    if (!output) return failed(output.error());
    auto capture = Capture::open(source.session->capture().files(), {.randomAccess = true, .keepsEveryBlock = true, .stop = source.stop});
    if (source.stop.stop_requested()) return cancelled(file);
    if (!capture) return failed(capture.error());
    CapturedPacket packet;
    while ((*capture)->next(packet) && !source.stop.stop_requested()) {}
    if (!copyCapture(**capture, changes, *output, source.stop)) return cancelled(file);
    return finished(*output, file, std::move(summary));
}

std::string nothingSentence(NothingToExport nothing, const SentenceReader& reader)
{
    switch (nothing) {
    case NothingToExport::noneDecrypts:
        return reader.say("none of the streams decrypts, so there is no plaintext; the list of streams says why");
    case NothingToExport::noSecret: return reader.say("there is no secret for any of the streams");
    case NothingToExport::noBody: return reader.say("no message of the streams has a body, so there is nothing to save");
    }
    std::unreachable();
}

}  // namespace

std::string sentenceOf(const ExportError& error)
{
    struct Sentence {
        SentenceReader reader = windowReader();
        std::string operator()(const ExportCancelled& cancelled) const
        {
            return reader.say("{}: the export was cancelled", cancelled.path);
        }
        std::string operator()(NothingToExport nothing) const { return nothingSentence(nothing, reader); }
        std::string operator()(const FileProblem& problem) const { return reader.say("{}: {}", problem.path, problem.error.text()); }
        std::string operator()(const ExportSpoolProblem& problem) const { return reader.say("{}: {}", problem.path, problem.error.text()); }
        std::string operator()(const CaptureError& error) const { return error.text(reader); }
    };
    return std::visit(Sentence{}, error);
}

ExportOutcome exportPlaintextFiles(const ExportSource& source, const std::string& folder)
{
    if (const auto made = prepareOutputFolder(folder); !made) return failed(FileProblem{folder, made.error()});
    const Opened opened = openStreams(source, {.folder = folder});
    if (opened.problem) return failed(*opened.problem);
    if (source.stop.stop_requested()) return cancelled(folder);
    if (opened.decrypted == 0) return failed(NothingToExport::noneDecrypts);
    return summaryOf(opened, folder);
}

ExportOutcome exportPlaintextCapture(const ExportSource& source, const std::string& file)
{
    auto output = begun(file);
    if (!output) return failed(output.error());
    const std::string folder = std::filesystem::absolute(file).parent_path().string();
    auto capture = PlaintextCapture::create(folder);
    if (!capture) return failed(ExportSpoolProblem{folder, capture.error()});
    const Opened opened = openStreams(source, {.capture = capture->get()});
    if (source.stop.stop_requested()) return cancelled(file);
    if (opened.decrypted == 0) return failed(NothingToExport::noneDecrypts);
    const auto written = (*capture)->write(*output, source.stop);
    if (source.stop.stop_requested()) return cancelled(file);
    if (!written) return failed(ExportSpoolProblem{file, written.error()});
    return finished(*output, file, summaryOf(opened, file));
}

ExportOutcome exportWithSecrets(const ExportSource& source, const std::string& file)
{
    CollectedSecrets secrets = collectSecrets(*source.session, source.streams, source.stop);
    if (secrets.connections == 0 && !source.stop.stop_requested()) return failed(NothingToExport::noSecret);
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
    if (const auto made = prepareOutputFolder(folder); !made) return failed(FileProblem{folder, made.error()});
    ObjectFolder objects(folder, ObjectFolder::Existing::kept);
    std::int64_t count = 0, bytes = 0, incomplete = 0;
    std::optional<FileProblem> problem;
    saveObjects(*source.session, source.streams, objects, source.stop, [&](const SavedObject& object) {
        problem = object.problem;
        ++count;
        bytes += object.bytes;
        incomplete += !object.isComplete;
        return !problem;
    });
    if (problem) return failed(*problem);
    if (source.stop.stop_requested()) return cancelled(folder);
    if (count == 0) return failed(NothingToExport::noBody);
    const SentenceReader reader = windowReader();
    std::string summary = reader.sayOf(count, "{}: {} object, {}", "{}: {} objects, {}", folder, count, sizeText(bytes, reader));
    if (incomplete > 0) (summary += reader.word("; ")) += reader.say("{} incomplete", incomplete);
    return summary;
}

ExportOutcome exportFormat(const ExportSource& source, const StreamExportFormat& format, const std::string& file)
{
    auto output = begun(file);
    if (!output) return failed(output.error());
    const bool isWhole = exportStreams(*source.session, source.streams, format, *output, source.stop) == ExportEnding::complete;
    if (source.stop.stop_requested()) return cancelled(file);
    const std::int64_t count = std::ssize(source.streams);
    const SentenceReader reader = windowReader();
    std::string summary = reader.sayOf(count, "{}: {} stream as {}", "{}: {} streams as {}", file, count, format.name);
    if (!isWhole) (summary += reader.word("; ")) += reader.say("{} incomplete", 1);
    return finished(*output, file, std::move(summary));
}

}  // namespace sealscope::desktop
