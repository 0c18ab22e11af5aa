// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/capture/SpoolFile.h"
#include "app/session/Session.h"
#include "host/VELModels/VELExporting.h"
#include "platform/FileDescriptor.h"

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <variant>
#include <vector>

namespace sealscope::desktop {

/// What is exported from, and how the work is watched.
struct ExportSource {
    std::shared_ptr<const Session> session;
    std::vector<std::int64_t> streams;
    std::stop_token stop;
    /// Told from any thread how many streams are done.
    std::function<void(std::int64_t)> progress;
};

/// Why an export came to nothing.
struct ExportCancelled {
    std::string path;
};
enum class NothingToExport : std::uint8_t { noneDecrypts, noSecret, noBody };
/// About the temporary file of an export to `path`.
struct ExportSpoolProblem {
    std::string path;
    SpoolError error;
};
using ExportError = std::variant<ExportCancelled, NothingToExport, FileProblem, ExportSpoolProblem, CaptureError>;
/// The sentence for it, in the language of the window.
std::string sentenceOf(const ExportError& error);

/// What was exported, in words, or why nothing was.
using ExportOutcome = std::expected<std::string, ExportError>;

// Each does its work in the thread that calls it, and others of its own. Files that are there are replaced where the user chose the
// file, and stay where the user chose a folder.

ExportOutcome exportPlaintextFiles(const ExportSource& source, const std::string& folder);
ExportOutcome exportPlaintextCapture(const ExportSource& source, const std::string& file);
/// The capture again, with the secrets of the streams inside.
ExportOutcome exportWithSecrets(const ExportSource& source, const std::string& file);
/// The capture again, without the secrets that it carries.
ExportOutcome exportWithoutSecrets(const ExportSource& source, const std::string& file);
ExportOutcome exportObjects(const ExportSource& source, const std::string& folder);
ExportOutcome exportFormat(const ExportSource& source, const StreamExportFormat& format, const std::string& file);

}  // namespace sealscope::desktop
