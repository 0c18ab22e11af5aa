// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/SpoolFile.h"
#include "app/texts/SentenceReader.h"
#include "platform/FileDescriptor.h"

#include <array>
#include <cstdint>
#include <string>
#include <variant>

namespace sealscope {

/// Why a compressed file does not unpack.
struct UnpackError {
    enum class Problem : std::uint8_t {
        damaged,  ///< in the library's `words`
        noMemory,
        wantsTooMuchMemory,
    };
    Problem problem = Problem::damaged;
    std::string words = {};
    std::string text() const;
};

/// Why a capture file cannot be read, or not any further.
struct ReadError {
    /// With what stands in `numbers`.
    enum class Problem : std::uint8_t {
        system,  ///< what `because` says
        isDirectory,
        isEmpty,
        isNoCapture,  ///< the first bytes of the file, and how many
        becameShorter,
        lostBytesLater,  ///< after all was read
        interrupted,     ///< before anything was read
        // Of compressed files, whose format is in `format`
        unpacksToTooMuch,  ///< most bytes, most times its size
        doesNotUnpack,     ///< `because` of; place in the file
        endsTooEarly,      ///< place in the file
        // Of pcap files
        fileHeaderCut,    ///< bytes there, bytes it has
        pcapVersion,      ///< major, minor
        packetHeaderCut,  ///< bytes there, bytes it has
        packetTooLong,    ///< bytes announced, the most
        // Of pcapng files
        pcapngVersion,  ///< major, minor
        noSectionHeader,
        sectionHeaderCut,  ///< bytes there
        noByteOrderMagic,
        blockTooShort,      ///< length, the least, type of block
        blockTooLong,       ///< length, type of block
        blockHeaderCut,     ///< bytes there
        lengthsDiffer,      ///< the first, the last
        tooManyInterfaces,  ///< the most
        interfaceUnknown,   ///< its number, how many there are
        packetLacksRoom,    ///< bytes announced, bytes that fit
        secretsTooShort,
        secretsTooLong,   ///< most bytes of all
        secretsLackRoom,  ///< bytes announced, bytes that fit
        // Of both
        isCut,              ///< bytes there, bytes it has
        fragmentsDoNotFit,  ///< anywhere, `because` of
    };
    enum class Unit : std::uint8_t { file, packet, block };

    Problem problem = Problem::system;
    std::array<std::int64_t, 3> numbers = {};
    std::variant<std::monostate, FileError, SpoolError, UnpackError> because = {};
    const char* format = "";    ///< "gzip"
    Unit unit = Unit::file;     ///< that the problem is of
    std::int64_t position = 0;  ///< in the file; of that unit, when it is not the file

    static ReadError ofSystem(int code) { return {.because = FileError::ofSystem(code)}; }
    /// The same, of a packet or block at a position.
    ReadError at(Unit of, std::int64_t offset) const;
    /// Lower case, without the file's name: "block at byte 88104: length 12 is too short …"
    std::string text(const SentenceReader& reader = {}) const;
};

}  // namespace sealscope
