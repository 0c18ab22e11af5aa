// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/VELExporting.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
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

/// What became of an export, in words.
struct ExportOutcome {
    std::string summary;  ///< empty when nothing was written
    std::string problem;  ///< as a sentence; empty when there is none
};

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
