// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/VerdictTable.h"
#include "app/export/CaptureCopy.h"
#include "app/export/CollectedSecrets.h"
#include "app/export/OutputFolder.h"
#include "app/export/PlaintextCapture.h"
#include "app/export/StreamDecryptor.h"
#include "app/records/StreamRecords.h"
#include "app/records/VerdictSentence.h"
#include "app/session/InOrder.h"
#include "platform/OutputFile.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;

ExistingFile existingFile(const Options& options) { return options.force ? ExistingFile::isReplaced : ExistingFile::stays; }

/// What was opened, as a table for people.
class OpenedTable {
public:
    explicit OpenedTable(const Terminal& terminal) : table_(columns(), terminal) {}

    void measure(const StreamSummary& summary) { table_.measure(cells({.summary = summary})); }

    void append(std::string& text, const OpenedStream& opened)
    {
        const std::string_view otherwise = opened.canInterpret ? "not asked" : "not TLS";
        table_.append(text, cells(opened), opened.verdict ? verdictText(*opened.verdict) : otherwise, sentence(opened));
    }

private:
    static std::vector<TextColumn> columns()
    {
        using enum TextColumn::Alignment;
        return {
            {.title = "Stream", .alignment = right, .narrowest = 6, .widest = 10, .isFirm = true, .style = Style::faint},
            {.title = "Client", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Server", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Sent", .alignment = right, .narrowest = 10, .widest = 14},
            {.title = "Received", .alignment = right, .narrowest = 10, .widest = 14},
        };
    }

    std::span<const std::string_view> cells(const OpenedStream& opened)
    {
        texts_ = {fmt::to_string(opened.summary.number), opened.summary.client.text(), opened.summary.server.text(),
                  fmt::to_string(opened.client.bytes), fmt::to_string(opened.server.bytes)};
        std::ranges::copy(texts_, cells_.begin());
        return cells_;
    }

    static std::string sentence(const OpenedStream& opened)
    {
        if (!opened.verdict) return {};
        if (!opened.verdict->outcome.isDecrypted()) return verdictSentence(*opened.verdict, opened.summary);
        std::vector<std::string_view> files;
        for (const OpenedDirection* direction : {&opened.client, &opened.server})
            if (!direction->file.empty()) files.push_back(direction->file);
        std::vector<std::string> parts;
        if (!files.empty()) parts.push_back(fmt::format("{}", fmt::join(files, ", ")));
        if (opened.verdict->report) parts.push_back(incompleteText(*opened.verdict->report));
        std::erase(parts, "");
        return fmt::format("{}", fmt::join(parts, "; "));
    }

    VerdictTable table_;
    std::array<std::string, 5> texts_;
    std::array<std::string_view, 5> cells_;
};

/// Opens the wanted streams and prints what came of each.
ExitStatus openStreams(const CommandContext& context, const Session& session, const std::vector<std::int64_t>& streams,
                       PlaintextCapture* capture)
{
    const Options& options = context.options;
    ExitStatus status = done;
    const StreamDecryptor decryptor(
        session, {.folder = options.output, .existing = existingFile(options), .capture = capture, .gaps = options.gaps}, interruption());
    OpenedTable table(context.terminal);
    if (!options.json)
        for (std::size_t i = 0; i < std::min<std::size_t>(streams.size(), 1'000); ++i) table.measure(session.summary(streams[i]));

    // Rows would be mixed up with a file that goes there.
    const bool hasRows = options.pcap != "-" && options.injectSecrets != "-" && options.stripSecrets != "-";
    // Files take time apart from their bytes, and some hundred bytes of a capture can stand for two.
    const std::int64_t mostFiles = 2'000 + session.capture().bytesOfFiles() / 3'072;
    std::int64_t interpreted = 0, decrypted = 0, files = 0;
    std::string text;
    const auto print = [&](const OpenedStream& opened) {
        interpreted += opened.canInterpret;
        decrypted += opened.verdict && opened.verdict->outcome.isDecrypted();
        for (const OpenedDirection* direction : {&opened.client, &opened.server}) {
            if (!direction->problem) continue;
            if (status == done) complain(direction->problem->text());  // the others would only say the same
            status = failed;
        }
        if (hasRows && (opened.canInterpret || !options.streams.empty())) {
            text.clear();
            if (options.json)
                appendRecord(text, opened);
            else
                table.append(text, opened);
            context.output.write(text);
        }
        files += !opened.client.file.empty() + !opened.server.file.empty();
        if (files >= mostFiles) {
            complain(
                fmt::format("{} files are written, and a capture of this size is given no more; if there are more, --stream I opens one "
                            "connection, and --pcap takes the plaintext of all",
                            files));
            status = failed;
        }
        return status == done && context.output.isOpen() && !isInterrupted();
    };
    const auto weight = [&](std::int64_t number) { return session.packets(number) * usualPayload; };
    inOrder(streams, weight, [&](std::int64_t number) { return decryptor.open(number); }, print);
    context.output.flush();
    if (decrypted == 0 && status == done) {
        if (interpreted == 0)
            remark("the capture holds no TLS connection");
        else
            remark(fmt::format("none of {} TLS connection{} decrypts; 'sealscope streams' says why", interpreted,
                               interpreted == 1 ? "" : "s"));
    }
    return status;
}

ExitStatus complainAboutOutput(const std::string& path, const std::string& problem)
{
    complain(fmt::format("{}: {}", path, problem));
    return failed;
}

/// An output of the command line that was begun before the work, so that one which cannot be written is told at once.
struct NamedOutput {
    std::string path;
    std::optional<OutputFile> file;

    bool begin(ExistingFile existing)
    {
        if (path.empty()) return true;
        auto created = OutputFile::create(path, existing, OutputFile::Kind::anything);
        if (!created)
            complainAboutOutput(path, created.error().text());
        else
            file.emplace(std::move(*created));
        return file.has_value();
    }
    ExitStatus finish()
    {
        const auto finished = file->finish();
        return finished ? done : complainAboutOutput(path, finished.error().text());
    }
    ExitStatus giveUp(const std::string& reason) const { return complainAboutOutput(path, reason); }
};

/// Writes the capture again with other secrets inside. A copy that was interrupted is none, nor is one of a part of the capture.
ExitStatus copyCapture(const Session& session, NamedOutput& output, const CaptureChanges& changes)
{
    if (wasInterrupted()) return output.giveUp("was not written, since the work was interrupted");
    const bool isWhole = copyCapture(session.capture(), changes, *output.file, interruption());
    return isWhole ? output.finish() : output.giveUp("was not written, since the copying was interrupted");
}

ExitStatus runDecrypt(const CommandContext& context)
{
    const Options& options = context.options;
    const bool opens = !options.output.empty() || !options.pcap.empty();
    if (!opens && options.injectSecrets.empty() && options.stripSecrets.empty()) {
        complain("'decrypt' wants --output, --pcap, --inject-secrets or --strip-secrets; 'sealscope decrypt --help' shows how");
        return wrongCommandLine;
    }
    if (!options.output.empty())
        if (const auto folder = prepareOutputFolder(options.output); !folder)
            return complainAboutOutput(options.output, folder.error().text());

    NamedOutput pcap{options.pcap}, injected{options.injectSecrets}, stripped{options.stripSecrets};
    for (NamedOutput* output : {&pcap, &injected, &stripped})
        if (!output->begin(existingFile(options))) return failed;
    std::unique_ptr<PlaintextCapture> plaintext;
    if (pcap.file) {
        const fs::path folder = options.pcap == "-" ? fs::temp_directory_path() : fs::absolute(options.pcap).parent_path();
        auto created = PlaintextCapture::create(folder.string());
        if (!created) return complainAboutOutput(folder.string(), created.error().text());
        plaintext = std::move(*created);
    }

    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const auto note = [&](ExitStatus another) { status = std::max(status, another); };
    if (opens) note(openStreams(context, *session, streams, plaintext.get()));
    if (pcap.file) {
        const auto written = plaintext->write(*pcap.file, interruption());
        note(written ? pcap.finish() : pcap.giveUp(written.error().text()));
    }
    if (injected.file) {
        CollectedSecrets secrets = collectSecrets(*session, streams, interruption());
        const ExitStatus copied = copyCapture(*session, injected, {.addedSecrets = std::move(secrets.keyLog)});
        note(copied);
        if (copied == done)
            remark(fmt::format("{}: carries secrets for {} connection{}", injected.path, secrets.connections,
                               secrets.connections == 1 ? "" : "s"));
    }
    if (stripped.file) note(copyCapture(*session, stripped, {.dropsSecrets = true}));
    return complainAboutDamage(context, *session, status);
}

}  // namespace

const Command decryptCommand{
    .name = "decrypt",
    .arguments = "FILE…",
    .summary = "the plaintext of what decrypts, as files or as a capture",
    .description = "Writes the plaintext of every TLS connection that decrypts, or of those that --stream names, and prints what became\n"
                   "of each. --output makes DIR/stream-0-client.bin, what the client sent, and DIR/stream-0-server.bin. --pcap makes a\n"
                   "capture that other tools read: TCP connections without TLS, between the original endpoints, at the original times.\n"
                   "In place of records that the capture lost, --gaps puts zeros, where it is known how many bytes they held, or\n"
                   "nothing, or a mark: in files a line of text, in a capture sequence numbers that pass over them.\n"
                   "--inject-secrets and --strip-secrets write the capture again, with and without secrets inside. What is written is\n"
                   "readable for its owner alone.",
    .examples = "sealscope decrypt -k keys.txt --output plain capture.pcapng|files in the folder plain\n"
                "sealscope decrypt -k keys.txt --pcap plain.pcap capture.pcapng|a capture for other tools\n"
                "sealscope decrypt -k keys.txt --inject-secrets all.pcapng capture.pcap|the capture with its secrets inside\n"
                "sealscope decrypt --strip-secrets share.pcapng all.pcapng|the capture without any\n",
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges, Option::reach,
                Option::output, Option::pcap, Option::injectSecrets, Option::stripSecrets, Option::gaps, Option::force, Option::json,
                Option::filter, Option::count},
    .access = Access::captures,
    .run = runDecrypt};

}  // namespace sealscope::cli
