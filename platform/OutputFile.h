// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <expected>
#include <string>

namespace sealscope SEALSCOPE_API {

/// A file that plaintext or secrets are written to. Only its owner may read it; what does not get complete is taken away
/// again; and it takes the place of an existing file only when that is wanted, and only when it is complete. Used by one
/// thread at a time.
class OutputFile {
public:
    enum class Kind : std::uint8_t {
        regular,   ///< a file of ours: what else has the name is not written to
        anything,  ///< whatever the user has named: also a pipe or a device that is there, or "-" for standard output
    };

    /// Begins a file.
    static std::expected<OutputFile, FileError> create(const std::string& path, ExistingFile existing, Kind kind);
    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&&) = delete;
    ~OutputFile();

    /// Has the file system set room aside for about so many bytes, which makes writing them cheaper. A hint: there may be more
    /// or fewer of them, and less room.
    void reserve(std::int64_t bytes);
    void write(DataView bytes);
    /// False when a write has failed: the rest of the work is for nothing.
    bool isGood() const { return error_ == 0; }
    /// Puts the complete file under its name. Fails with what went wrong, then or at any write before.
    std::expected<void, FileError> finish();

private:
    OutputFile() = default;

    std::string path_;
    std::string unfinishedPath_;  ///< where it is until it is complete; empty for what is no file of ours
    FileDescriptor descriptor_;
    int error_ = 0;
    std::int64_t written_ = 0;
    std::int64_t reserved_ = 0;
    SecretBytes held_;            ///< small pieces, to be written as a large one
    std::int64_t heldBytes_ = 0;  ///< at its beginning
};

}  // namespace sealscope SEALSCOPE_API
