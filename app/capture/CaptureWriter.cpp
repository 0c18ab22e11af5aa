// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureWriter.h"

#include "app/capture/Capture.h"
#include "app/capture/CaptureInput.h"
#include "app/capture/PcapReader.h"
#include "app/capture/PcapngBlocks.h"
#include "app/capture/PcapngReader.h"

#include <algorithm>
#include <utility>

namespace sealscope {
namespace {

constexpr std::int64_t sectionLengthOffset = 16;
constexpr std::int64_t largePiece = 1 << 20, hugePiece = 8 << 20;
constexpr std::uint32_t microsecondMagic = 0xA1B2'C3D4, nanosecondMagic = 0xA1B2'3C4D;
constexpr std::int64_t packetsPerLookAtFile = 256;  // at whether the file is still there

/// Whether bytes of a file are really there: what a file has lost reads as zeros once it was touched.
bool areThere(DataView bytes, const Capture& capture, std::size_t file)
{
    constexpr std::int64_t smallestPage = 4'096;
    for (std::int64_t at = 0; at < bytes.size(); at += smallestPage)
        static_cast<void>(*static_cast<const volatile std::uint8_t*>(&bytes.data()[at]));
    return !capture.isLost(file);
}

}  // namespace

bool CaptureWriter::section()
{
    order_ = {};
    begin(Pcapng::sectionHeader);
    put(Pcapng::byteOrderMagic);
    put(std::uint16_t{1});  // version 1.0
    put(std::uint16_t{0});
    put(std::int64_t{-1});  // length not given
    return end();
}

bool CaptureWriter::interface(std::uint32_t linkType, std::uint32_t snapLength, std::uint8_t decimals)
{
    begin(Pcapng::interfaceDescription);
    put(static_cast<std::uint16_t>(linkType));
    put(std::uint16_t{0});
    put(snapLength);
    put(Pcapng::timeResolution);
    put(std::uint16_t{1});
    putPadded({&decimals, 1});
    put(std::uint32_t{Pcapng::endOfOptions});
    return end();
}

bool CaptureWriter::secrets(std::string_view keyLog)
{
    begin(Pcapng::decryptionSecrets);
    put(Pcapng::tlsKeyLog);
    put(static_cast<std::uint32_t>(keyLog.size()));
    putPadded(DataView(keyLog));
    return end();
}

bool CaptureWriter::packet(const CapturedPacket& packet, std::uint32_t interface)
{
    put(packet, interface);
    return end();
}

void CaptureWriter::put(const CapturedPacket& packet, std::uint32_t interface)
{
    const std::uint64_t stamp = static_cast<std::uint64_t>(packet.time.seconds) * packet.time.resolution + packet.time.units;
    begin(Pcapng::enhancedPacket);
    put(interface);
    put(static_cast<std::uint32_t>(stamp >> 32));
    put(static_cast<std::uint32_t>(stamp));
    put(static_cast<std::uint32_t>(packet.frame.size()));
    put(static_cast<std::uint32_t>(packet.originalLength));
    putPadded(packet.frame);
}

bool CaptureWriter::classicHeader(std::uint32_t linkType, std::uint32_t snapLength, std::uint8_t decimals)
{
    order_ = {};
    block_.clear();
    put(decimals == 9 ? nanosecondMagic : microsecondMagic);
    put(std::uint16_t{2});  // version 2.4
    put(std::uint16_t{4});
    put(std::uint64_t{0});  // nobody fills these
    put(snapLength);
    put(linkType);
    return sink_(viewOf(block_));
}

bool CaptureWriter::classicPacket(const CaptureTime& time, std::int64_t originalLength, DataView frame, DataView rest)
{
    block_.clear();
    put(static_cast<std::uint32_t>(time.seconds));
    put(static_cast<std::uint32_t>(time.units));
    put(static_cast<std::uint32_t>(frame.size() + rest.size()));
    put(static_cast<std::uint32_t>(originalLength));
    return sink_(viewOf(block_)) && sink_(frame) && (rest.isEmpty() || sink_(rest));
}

bool CaptureWriter::copy(const Capture& capture, const CaptureChanges& changes)
{
    pendingSecrets_ = changes.addedSecrets;
    for (std::size_t file = 0; file < capture.files().size(); ++file) {
        const bool isPcapng = PcapngReader::recognises(capture.fileBytes(file));
        if (!(isPcapng ? copyPcapng(capture, file, changes) : copyPcap(capture, file))) return false;
    }
    return true;
}

bool CaptureWriter::copyPcapng(const Capture& capture, std::size_t file, const CaptureChanges& changes)
{
    const DataView bytes = capture.fileBytes(file);
    const auto input = CaptureInput::over(bytes);
    PcapngBlocks blocks;
    std::int64_t end = 0, unwritten = 0;  // of whole blocks; those from the second on stay as they are
    bool isLost = false;
    // In pieces, for a block may be larger than what should be in memory at once.
    const auto writeUpTo = [&](std::int64_t position) {
        while (unwritten < position && !isLost) {
            const DataView unchanged = bytes.sub(unwritten, std::min(position - unwritten, hugePiece));
            isLost = !areThere(unchanged, capture, file);
            if (!isLost && !sink_(unchanged)) return false;
            capture.letGo(file, unwritten, unchanged.size());
            unwritten += unchanged.size();
        }
        return true;
    };
    // Damage ends it, of which the capture has told.
    while (!isLost && blocks.find(*input)) {
        const std::int64_t at = blocks.position(), next = at + blocks.length();
        if (!blocks.leave(*input)) break;
        end = next;
        if (blocks.type() == Pcapng::sectionHeader && (changes.dropsSecrets || !pendingSecrets_.empty())) {
            // A section's length, where it is given, is no longer true when a block comes or goes.
            if (!writeUpTo(at)) return false;
            order_ = blocks.order();
            block_.assign(bytes.begin() + at, bytes.begin() + next);
            std::fill_n(block_.begin() + sectionLengthOffset, 8, std::uint8_t{0xff});
            if (!sink_(viewOf(block_)) || !addPendingSecrets()) return false;
            unwritten = next;
        } else if (blocks.type() == Pcapng::decryptionSecrets && changes.dropsSecrets) {
            if (!writeUpTo(at)) return false;
            unwritten = next;
        }
        if (next - unwritten >= largePiece && !writeUpTo(next)) return false;
    }
    return isLost || writeUpTo(end);
}

bool CaptureWriter::copyPcap(const Capture& capture, std::size_t file)
{
    const DataView bytes = capture.fileBytes(file);
    const auto input = CaptureInput::over(bytes);
    auto reader = PcapReader::recognise(bytes);
    if (!reader || !reader->begin(*input)) return true;
    if (!section() || !addPendingSecrets() || !interface(reader->linkType(), reader->snapLength(), reader->decimals())) return false;
    CapturedPacket next;
    std::int64_t letGo = 0;
    for (std::int64_t count = 0; reader->next(*input, next); ++count) {
        put(next, 0);
        if (const std::int64_t read = input->position() - letGo; read >= largePiece) {
            capture.letGo(file, letGo, read);
            letGo += read;
        }
        // Zeros read like an empty packet, and zeros are what stands where a file lost its end.
        if ((next.frame.isEmpty() || count % packetsPerLookAtFile == 0) && capture.isLost(file)) return true;
        if (!end()) return false;
    }
    return true;
}

bool CaptureWriter::addPendingSecrets()
{
    const std::string_view keyLog = std::exchange(pendingSecrets_, {});
    return keyLog.empty() || secrets(keyLog);
}

void CaptureWriter::begin(std::uint32_t type)
{
    block_.clear();
    put(type);
    put(std::uint32_t{0});  // the length, once it is known
}

template <typename Integer> void CaptureWriter::put(Integer value) { order_.append(value, block_); }

void CaptureWriter::putPadded(DataView bytes)
{
    block_.insert(block_.end(), bytes.begin(), bytes.end());
    block_.resize((block_.size() + 3) / 4 * 4);
}

bool CaptureWriter::end()
{
    const auto length = static_cast<std::uint32_t>(block_.size() + 4);
    put(length);
    std::copy(block_.end() - 4, block_.end(), block_.begin() + 4);
    return sink_(viewOf(block_));
}

}  // namespace sealscope
