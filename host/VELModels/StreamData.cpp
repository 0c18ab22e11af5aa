// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamData.h"

namespace sealscope {

std::int64_t StreamData::copy(std::int64_t offset, std::span<std::uint8_t> target) const
{
    std::int64_t copied = 0;
    const auto wanted = static_cast<std::int64_t>(target.size());
    while (copied < wanted) {
        const DataView part = stretch(offset + copied).sub(0, wanted - copied);
        if (part.isEmpty()) break;
        std::memcpy(target.data() + copied, part.data(), static_cast<std::size_t>(part.size()));
        copied += part.size();
    }
    return copied;
}

DataView StreamData::gather(std::int64_t from, std::int64_t count, std::vector<std::uint8_t>& scratch) const
{
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    const DataView here = stretch(from);
    if (here.size() >= count) return here.sub(0, count);
    scratch.resize(static_cast<std::size_t>(count));
    std::ranges::copy(here, scratch.begin());
    copy(from + here.size(), std::span(scratch).subspan(static_cast<std::size_t>(here.size())));
    return scratch;
}

Data StreamData::slice(std::int64_t from, std::int64_t count) const
{
    if (!source_) return whole_.sub(from, count);
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    if (count == 0) return {};
    if (const DataView here = stretch(from); here.size() >= count) return {source_, here.sub(0, count)};
    auto gathered = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(count));
    copy(from, {gathered.get(), static_cast<std::size_t>(count)});
    const std::uint8_t* const bytes = gathered.get();
    return {std::move(gathered), {bytes, count}};
}

bool StreamReader::reload(std::int64_t offset)
{
    const DataView here = data_->stretch(offset);
    if (here.isEmpty()) return false;
    stretch_ = here;
    start_ = offset;
    return true;
}

}  // namespace sealscope
