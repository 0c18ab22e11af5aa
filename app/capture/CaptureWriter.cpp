// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureWriter.h"

#include "app/capture/Capture.h"
#include "app/capture/CaptureInput.h"
#include "app/capture/PcapReader.h"
#include "app/capture/PcapngReader.h"

#include <algorithm>
#include <utility>

namespace sealscope {
namespace {

constexpr std::int64_t shortestBlock = 12, shortestSection = 28;
constexpr std::int64_t sectionLengthOffset = 16;
constexpr std::int64_t largePiece = 1 << 20;

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
    const std::uint64_t stamp = static_cast<std::uint64_t>(packet.time.seconds) * packet.time.resolution + packet.time.units;
    begin(Pcapng::enhancedPacket);
    put(interface);
    put(static_cast<std::uint32_t>(stamp >> 32));
    put(static_cast<std::uint32_t>(stamp));
    put(static_cast<std::uint32_t>(packet.frame.size()));
    put(static_cast<std::uint32_t>(packet.originalLength));
    putPadded(packet.frame);
    ++packetsWritten_;
    return end();
}

bool CaptureWriter::copy(const Capture& capture, const CaptureChanges& changes)
{
    pendingSecrets_ = changes.addedSecrets;
    for (std::size_t file = 0; file < capture.files().size(); ++file) {
        const DataView bytes = capture.fileBytes(file);
        if (!(PcapngReader::recognises(bytes) ? copyPcapng(bytes, changes) : copyPcap(bytes))) return false;
    }
    return true;
}

bool CaptureWriter::copyPcapng(DataView file, const CaptureChanges& changes)
{
    const auto isPacket = [](std::uint32_t type) {
        return type == Pcapng::enhancedPacket || type == Pcapng::simplePacket || type == Pcapng::packetBlock;
    };
    std::int64_t at = 0, unwritten = 0;  // blocks from the one on to the other stay as they are
    const auto writeUpTo = [&](std::int64_t position) {
        const DataView blocks = file.sub(unwritten, position - unwritten);
        unwritten = position;
        return blocks.isEmpty() || sink_(blocks);
    };
    while (file.holds(at, shortestBlock)) {
        const std::uint8_t* const block = file.data() + at;
        const std::uint32_t type = order_.u32(block);
        const bool isSection = type == Pcapng::sectionHeader;
        if (isSection) order_.isSwapped = ByteOrder{}.u32(block + 8) != Pcapng::byteOrderMagic;
        if (isSection && order_.u32(block + 8) != Pcapng::byteOrderMagic) break;
        const std::int64_t length = order_.u32(block + 4);
        if (length < (isSection ? shortestSection : shortestBlock) || !file.holds(at, length) || order_.u32(block + length - 4) != length)
            break;  // damage, of which the capture has told
        const std::int64_t next = at + length;
        if (isSection && (changes.dropsSecrets || !pendingSecrets_.empty())) {
            // A section's length, where it is given, is no longer true when a block comes or goes.
            if (!writeUpTo(at)) return false;
            block_.assign(block, block + length);
            std::fill_n(block_.begin() + sectionLengthOffset, 8, std::uint8_t{0xff});
            if (!sink_(DataView(block_)) || !addPendingSecrets()) return false;
            unwritten = next;
        } else if (type == Pcapng::decryptionSecrets && changes.dropsSecrets) {
            if (!writeUpTo(at)) return false;
            unwritten = next;
            ++secretsDropped_;
        } else if (isPacket(type)) {
            ++packetsWritten_;
        }
        at = next;
        if (at - unwritten >= largePiece && !writeUpTo(at)) return false;
    }
    return writeUpTo(at);
}

bool CaptureWriter::copyPcap(DataView file)
{
    const auto input = CaptureInput::over(file);
    auto reader = PcapReader::recognise(file);
    if (!reader || !reader->begin(*input)) return true;
    if (!section() || !addPendingSecrets() || !interface(reader->linkType(), reader->snapLength(), reader->decimals())) return false;
    CapturedPacket next;
    while (reader->next(*input, next))
        if (!packet(next)) return false;
    return true;
}

bool CaptureWriter::addPendingSecrets()
{
    const std::string keyLog = std::exchange(pendingSecrets_, {});
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
    return sink_(DataView(block_));
}

}  // namespace sealscope
