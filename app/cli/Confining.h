// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/CommandLine.h"
#include "app/confinement/Confinement.h"

#include <filesystem>
#include <optional>
#include <string>

namespace sealscope::cli {

/// Gives up what the command of a command line does not need, at the moment that it chooses: when what it writes is open, and nothing
/// that it reads has been looked at.
class Confining {
public:
    explicit Confining(const Options& options) : options_(options) {}
    /// Takes the temporary folder away.
    ~Confining();

    /// Does it; a second call does nothing.
    void begin();
    /// What is in force, in lines of their own: "files: …".
    std::string text() const;
    /// What is to be said when memory has run out.
    std::string outOfMemory() const;

    Confining(const Confining&) = delete;
    Confining& operator=(const Confining&) = delete;

private:
    const Options& options_;
    std::optional<Protection> protection_;
    std::filesystem::path temporaryFolder_;  ///< of this process; empty when it needs none
};

}  // namespace sealscope::cli
