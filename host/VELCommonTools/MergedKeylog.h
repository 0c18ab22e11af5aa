// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// The key logs that apply, as one text. Any thread may call any operation.
struct MergedKeylog {
    MergedKeylog() = delete;

    /// A place that secrets come from.
    struct Source {
        std::string file;  ///< its path
        bool operator==(const Source&) const = default;
    };

    /// Two stamps differ when they are not of one source, or it may have changed between them. Nothing of a file is read for it.
    struct SourceStamp {
        bool exists = false;
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t size = 0;      ///< bytes
        std::int64_t modified = 0;  ///< nanoseconds since 1970
        std::int64_t changed = 0;   ///< the same, of the file's metadata: a time of modification can be set back
        bool operator==(const SourceStamp&) const = default;
    };

    /// Why a file contributes no secrets, or nothing of the kind.
    struct Examination {
        enum class Problem : std::uint8_t {
            none,
            cannotOpen,  ///< `error` says why; a file that does not exist is one
            cannotRead,  ///< `error` says why
            isDirectory,
            isNoFile,  ///< a pipe, a device, a socket
            tooLarge,  ///< for the memory of this machine
            isEmpty,
            noValidLine,  ///< not one of its `lines` is a key log line
        };
        Problem problem = Problem::none;
        int error = 0;           ///< errno
        std::int64_t size = 0;   ///< bytes
        std::int64_t lines = 0;  ///< comments and empty lines left out
        std::int64_t validLines = 0;
        std::int64_t firstInvalidLine = 0;  ///< counted from 1 over all lines; 0 when each is valid
    };

    /// The sources in the order of their texts: the managed key log, and then the user's file or, when there is none, the file
    /// of the environment. Empty paths count as none.
    static std::vector<Source> sources(const std::optional<std::string>& userPath, const std::optional<std::string>& envPath);
    static std::vector<SourceStamp> signature(const std::vector<Source>& sources);
    /// The bytes of the readable sources one behind another, each source's lines whole. What cannot be read contributes nothing.
    static SecretText mergedText(const std::vector<Source>& sources);

    /// Reads a file and says what is the matter with it. Lines are counted by the registered decryption probes; without
    /// one, none are.
    static Examination examine(const std::filesystem::path& file);
    /// The same, but ends, with what was counted until then, where a large file has shown that it is a key log.
    static Examination examineBriefly(const std::filesystem::path& file);
};

}  // namespace sealscope SEALSCOPE_API
