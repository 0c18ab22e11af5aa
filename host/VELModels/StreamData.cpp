// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamData.h"

#include <algorithm>
#include <utility>

namespace sealscope {

void StreamByteSource::copy(std::int64_t offset, std::span<std::uint8_t> target) const
{
    while (!target.empty()) {
        const DataView part = stretch(offset).sub(0, std::ssize(target));
        std::ranges::copy(part, target.begin());
        target = target.subspan(static_cast<std::size_t>(part.size()));
        offset += part.size();
    }
}

std::int64_t StreamData::copy(std::int64_t offset, std::span<std::uint8_t> target) const
{
    if (offset < 0 || offset >= size_) return 0;
    const std::int64_t count = std::min(size_ - offset, std::ssize(target));
    target = target.first(static_cast<std::size_t>(count));
    if (source_)
        source_->copy(offset, target);
    else
        std::ranges::copy(whole_.view().sub(offset, count), target.begin());
    return count;
}

DataView StreamData::gather(std::int64_t from, std::int64_t count, std::vector<std::uint8_t>& scratch) const
{
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    if (source_ && std::cmp_less(scratch.size(), count)) scratch.resize(static_cast<std::size_t>(count));
    return gather(from, count, scratch.data());
}

DataView StreamData::gather(std::int64_t from, std::int64_t count, std::uint8_t* scratch) const
{
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    const DataView here = stretch(from);
    if (here.size() >= count) return here.sub(0, count);
    source_->copy(from, {scratch, static_cast<std::size_t>(count)});
    return {scratch, count};
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
