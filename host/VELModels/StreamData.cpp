// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamData.h"

#include <algorithm>
#include <utility>

namespace sealscope {

void StreamByteSource::forEachStretch(std::int64_t offset, std::int64_t count, const std::function<void(DataView)>& visit) const
{
    while (count > 0) {
        const DataView part = stretch(offset).sub(0, count);
        visit(part);
        offset += part.size();
        count -= part.size();
    }
}

std::optional<ByteRange> StreamByteSource::hole(std::int64_t) const { return std::nullopt; }

void StreamData::findStretches(std::int64_t from, std::int64_t count, std::vector<DataView>& stretches) const
{
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    stretches.clear();
    if (source_)
        source_->forEachStretch(from, count, [&](DataView part) { stretches.push_back(part); });
    else
        stretches.push_back(whole_.view().sub(from, count));
}

std::int64_t StreamData::copy(std::int64_t offset, std::span<std::uint8_t> target) const
{
    if (offset < 0 || offset >= size_) return 0;
    const std::int64_t count = std::min(size_ - offset, std::ssize(target));
    std::uint8_t* next = target.data();
    const auto append = [&](DataView part) { next = std::copy(part.begin(), part.end(), next); };
    if (source_)
        source_->forEachStretch(offset, count, append);
    else
        append(whole_.view().sub(offset, count));
    return count;
}

DataView StreamData::gather(std::int64_t from, std::int64_t count, std::vector<std::uint8_t>& scratch) const
{
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    const DataView here = stretch(from);
    if (here.size() >= count) return here.sub(0, count);
    scratch.resize(static_cast<std::size_t>(count));
    copy(from, scratch);
    return scratch;
}

Data StreamData::slice(std::int64_t from, std::int64_t count) const
{
    if (!source_) return whole_.sub(from, count);
    from = std::clamp<std::int64_t>(from, 0, size_);
    count = std::clamp<std::int64_t>(count, 0, size_ - from);
    if (count == 0) return {};
    if (const DataView here = stretch(from); here.size() >= count && source_->lendsForLong()) return {source_, here.sub(0, count)};
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
