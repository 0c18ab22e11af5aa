// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace sealscope {

/// What a process keeps when it gives up the rest. Paths that do not exist are left out. What is open already stays open.
struct Confinement {
    /// Which system calls remain. None of them starts a program, makes a socket or executable memory, or touches another process.
    enum class Calls : std::uint8_t {
        reading,  ///< computing, threads, reading and writing files, unnamed temporary files
        writing,  ///< and making, renaming and removing files by name
        packets,  ///< as `reading`, and receiving from a socket
    };
    Calls calls = Calls::reading;
    /// A folder among them may be listed, and nothing below it be read: opening it says what it is.
    std::vector<std::filesystem::path> readableFiles;
    std::vector<std::filesystem::path> readableFolders;  ///< with all below
    std::vector<std::filesystem::path> writableFiles;
    std::vector<std::filesystem::path> writableFolders;   ///< files below may be made, read, written, renamed and removed
    std::vector<std::filesystem::path> removableFolders;  ///< files and empty folders in it may be removed
    std::vector<std::filesystem::path> emptyFoldersIn;    ///< empty folders in it may be removed, and no file
    std::vector<std::filesystem::path> renamableFolders;  ///< files in it may be renamed and removed
    std::int64_t memory = 0;                              ///< bytes of heap, stacks and other private memory; 0: no limit
};

/// What is in force.
struct Protection {
    int landlockVersion = 0;       ///< of the kernel's interface; 0: files and TCP are not protected
    bool coversOldThreads = true;  ///< false: Landlock does not bind threads that ran before
    bool filtersCalls = false;
    std::int64_t memory = 0;  ///< the limit in bytes; 0: none
    bool operator==(const Protection&) const = default;
};

/// Gives up, for this process and for good, everything that is not named. Call it before the first outside byte is parsed, and
/// before there are threads: the filter of system calls binds those that run, Landlock does so from version 8 on. On a kernel
/// without one of these the others still hold. A build with sanitizers, which need what is given up here, is not confined.
Protection confine(const Confinement& confinement);

}  // namespace sealscope
