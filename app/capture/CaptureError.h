// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/PacketFilter.h"
#include "app/capture/PcapLibraryError.h"
#include "app/capture/Privileges.h"
#include "app/capture/ReadError.h"
#include "app/texts/SentenceReader.h"
#include "platform/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <variant>

namespace sealscope {

/// Why an interface cannot be captured from, or not any longer.
struct InterfaceError {
    enum class Problem : std::uint8_t {
        refused,  ///< in the `words` of libpcap
        noPermission,
        doesNotExist,
    };
    Problem problem = Problem::refused;
    std::string words = {};
    std::string text() const;
};

/// Why what was captured is not all in its file.
struct NotWritten {
    FileError error;
    std::string text() const;
};

/// What is wrong with a capture, where, and how much was read before it. The sentence is made by `text()`.
struct CaptureError {
    using Cause =
        std::variant<ReadError, FilterError, UnfilteredPackets, InterfaceError, PcapLibraryError, PrivilegeError, FileError, NotWritten>;

    std::string file;  ///< as the user named it; "-" is standard input; empty when no file is at fault
    Cause cause;
    std::int64_t packetsBefore = 0;  ///< packets of this file that were read before the damage; negative when it has no place
    bool couldNotOpen = false;       ///< nothing of the file could be read
    /// Damaged places that were passed over, of which this is the first; 0 when reading ended here.
    std::int64_t passedOver = 0;

    /// Lower case, without the file's name.
    std::string reason(const SentenceReader& reader = {}) const;
    /// "office.pcapng: block at byte 88104: …; 411 packets before it were read"
    std::string text(const SentenceReader& reader = {}) const;
};

}  // namespace sealscope
