// SPDX-License-Identifier: Apache-2.0
#include "app/session/PacketIndex.h"

#include <algorithm>
#include <any>
#include <exception>
#include <limits>
#include <new>
#include <string_view>

namespace sealscope {

std::size_t PacketIndex::PathHash::operator()(const Path& path) const
{
    std::size_t hash = 0;
    for (const TCPStreamKey::Endpoint* endpoint : {&path.first, &path.second}) {
        const std::string_view address(reinterpret_cast<const char*>(endpoint->address.data()), endpoint->address.size());
        hash = (hash ^ std::hash<std::string_view>()(address) ^ endpoint->port) * 0x9E37'79B9'7F4A'7C15U;
    }
    return hash;
}

std::string PlugInFailure::text(const SentenceReader& reader) const
{
    return reader.say("packet {}: a plug-in failed: {}", fmt::to_string(packet), reason);
}

PacketIndex::PacketIndex(std::shared_ptr<Capture> capture) : capture_(std::move(capture)), decoder_(capture_.get())
{
    paths_.append({});  // of packets that are not TCP
}

std::expected<std::shared_ptr<PacketIndex>, CaptureError> PacketIndex::open(const std::vector<std::string>& files, std::stop_token stop)
{
    auto capture = Capture::open(files, {.randomAccess = true, .stop = std::move(stop)});
    if (!capture) return std::unexpected(std::move(capture.error()));
    return std::shared_ptr<PacketIndex>(new PacketIndex(std::move(*capture)));
}

bool PacketIndex::read(std::int64_t packets)
{
    for (; packets > 0; --packets) {
        if (!capture_->next(packet_)) return false;
        PacketEntry entry{.time = packet_.time.value(),
                          .length = static_cast<std::uint32_t>(
                              std::clamp<std::int64_t>(packet_.originalLength, 0, std::numeric_limits<std::uint32_t>::max()))};
        if (decoder_.decode(packet_, segment_)) {
            entry.isTCP = true;
            entry.path = pathOf(segment_);
            entry.payloadAddress = segment_.payloadAddress;
            entry.payloadLength = segment_.payloadAddress < 0 ? 0 : static_cast<std::uint32_t>(segment_.payload.size());
            if (entry.payloadLength > 0) entry.plugIn = recognize(segment_.payload, packet_.number);
        }
        if (!entries_.append(entry)) return false;
    }
    return true;
}

std::uint8_t PacketIndex::recognize(DataView payload, std::int64_t packet)
{
    try {
        if (const PacketMatch match = analyzers_.match(payload))
            return static_cast<std::uint8_t>(match.plugIn - analyzers_.plugIns().data());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& problem) {
        if (!plugInFailure_) plugInFailure_ = {.packet = packet, .reason = problem.what()};
    }
    return PacketEntry::unrecognized;
}

std::uint32_t PacketIndex::pathOf(const TCPPacket& segment)
{
    const auto [found, isNew] =
        pathNumbers_.try_emplace(Path(segment.source, segment.destination), static_cast<std::uint32_t>(paths_.size()));
    if (isNew) paths_.append(found->first);
    return found->second;
}

PacketRow PacketIndex::row(std::int64_t position) const
{
    const PacketEntry& entry = entries_[position];
    const Path& path = paths_[entry.path];
    PacketRow row{.number = position + 1, .time = entry.time, .source = path.first, .destination = path.second};
    if (entry.payloadLength > 0) row.payload = capture_->bytes(entry.payloadAddress, entry.payloadLength);
    if (entry.plugIn == PacketEntry::unrecognized) return row;
    static const std::any noPacket;
    const PacketPlugIn& plugIn = analyzers_.plugIns()[entry.plugIn];
    if (auto analyzer = plugIn.analyzerClass->create(row.payload, noPacket)) row.match = {&plugIn, std::move(analyzer)};
    return row;
}

}  // namespace sealscope
