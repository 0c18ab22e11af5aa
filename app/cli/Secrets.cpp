// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Secrets.h"

#include "app/cli/Messages.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELCommonTools/MergedKeylog.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "platform/UserDefaults.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <utility>

namespace sealscope::cli {

namespace {

using Examination = MergedKeylog::Examination;

std::string reason(const Examination& found)
{
    switch (found.problem) {
    case Examination::Problem::none: return "";
    case Examination::Problem::cannotOpen:
    case Examination::Problem::cannotRead: return std::strerror(found.error);
    case Examination::Problem::isDirectory: return "is a directory";
    case Examination::Problem::isNoFile: return "is no regular file";
    case Examination::Problem::tooLarge: return fmt::format("has {} bytes, which is too much for the memory of this machine", found.size);
    case Examination::Problem::isEmpty: return "is empty";
    case Examination::Problem::noValidLine:
        if (found.lines == 0) return "holds comments alone";
        return fmt::format("none of its {} line{} is one of a key log", found.lines, found.lines == 1 ? "" : "s");
    }
    std::unreachable();
}

/// Whether a key log could not be read at all, rather than having nothing in it.
bool isUnreadable(const Examination& found)
{
    return found.problem != Examination::Problem::none && found.problem != Examination::Problem::isEmpty &&
           found.problem != Examination::Problem::noValidLine;
}

}  // namespace

ExitStatus useSecrets(const std::vector<std::string>& keylogs, std::string_view embeddedKeyLog)
{
    if (!embeddedKeyLog.empty()) MergedKeylog::setEmbeddedSecrets(SecretText(embeddedKeyLog));
    if (keylogs.empty()) return done;
    KeylogUserFile::setOverride(keylogs);
    ExitStatus status = done;
    for (const std::string& file : keylogs) {
        const Examination found = MergedKeylog::examineBriefly(file);
        if (found.problem == Examination::Problem::none) continue;
        complain(fmt::format("--keylog {}: {}", file, reason(found)));
        if (isUnreadable(found)) status = failed;
    }
    return status;
}

std::vector<std::string> keyLogProblems()
{
    const char* named = std::getenv("SSLKEYLOGFILE");
    const auto sources = MergedKeylog::sources(KeylogUserFile::resolvedPath(UserDefaults::standard()),
                                               named ? std::optional<std::string>(named) : std::nullopt);
    std::vector<std::string> problems;
    for (const MergedKeylog::Source& source : sources) {
        if (source.isEmbedded() || source.file == KeylogLocations::liveKeylog()) continue;
        const Examination found = MergedKeylog::examine(source.file);
        if (found.problem != Examination::Problem::none) problems.push_back(fmt::format("{}: {}", source.file, reason(found)));
    }
    return problems;
}

}  // namespace sealscope::cli
