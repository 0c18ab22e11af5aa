// SPDX-License-Identifier: Apache-2.0
#include "app/capture/FileAhead.h"

namespace sealscope {

StretchReader::StretchReader(const FileAhead& file, std::int64_t from, std::int64_t to) : ahead_(file), from_(from), to_(to) {}

bool StretchReader::find()
{
    const std::int64_t found = ahead_.file->findPacket(from_, to_);
    if (found < 0) {
        stretch_ = {};
        return false;
    }
    start(found);
    from_ = found + 1;
    return true;
}

void StretchReader::start(std::int64_t offset)
{
    stretch_ = {.begin = offset, .end = offset};
    file_ = ahead_.file->ahead(offset);
}

bool StretchReader::next(CapturedPacket& packet)
{
    if (stretch_.end >= to_ || !file_->next(packet)) return false;
    // Bytes that are gone read as zeros. What is true of them only the reading in order finds out.
    if (file_->input().isSuspicious()) [[unlikely]] {
        stretch_ = {};
        return false;
    }
    stretch_.end = file_->input().position();
    ++stretch_.packets;
    packet.file = static_cast<std::uint32_t>(ahead_.position);
    packet.address += ahead_.base;
    return true;
}

}  // namespace sealscope
