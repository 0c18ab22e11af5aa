// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamBody.h"

#include <mutex>
#include <utility>
#include <vector>

namespace sealscope {

/// A source, and what was learned from it.
struct StreamBody::Made {
    explicit Made(std::shared_ptr<const Source> made) : source(std::move(made)) {}

    struct Measures {
        std::int64_t length = 0;
        Ending ending;
    };

    /// Lengths of bodies that are known come without any work; the ending never does.
    const Measures& measures()
    {
        std::call_once(measuredOnce, [&] {
            measured.ending = source->forEachPiece([&](DataView piece) {
                measured.length += piece.size();
                return true;
            });
        });
        return measured;
    }

    const Data& bytes()
    {
        std::call_once(joinedOnce, [&] { all = source->joined(); });
        return all;
    }

    const std::shared_ptr<const Source> source;
    std::once_flag measuredOnce;
    std::once_flag joinedOnce;
    Measures measured;
    Data all;
};

Data StreamBody::Source::joined() const
{
    std::vector<std::uint8_t> bytes;
    if (const auto length = knownLength()) bytes.reserve(static_cast<std::size_t>(*length));
    forEachPiece([&](DataView piece) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        return true;
    });
    return Data(std::move(bytes));
}

namespace {

class CapturedBytes final : public StreamBody::Source {
public:
    explicit CapturedBytes(StreamData data) : data_(std::move(data)) {}
    std::optional<std::int64_t> knownLength() const override { return data_.size(); }
    StreamBody::Ending forEachPiece(const StreamBody::Take& take) const override
    {
        for (std::int64_t offset = 0; offset < data_.size();) {
            const DataView stretch = data_.stretch(offset);
            if (!take(stretch)) break;
            offset += stretch.size();
        }
        return {};
    }

private:
    StreamData data_;
};

class BytesOnDemand final : public StreamBody::Source {
public:
    BytesOnDemand(std::int64_t length, std::function<Data()> make) : length_(length), make_(std::move(make)) {}
    std::optional<std::int64_t> knownLength() const override { return length_; }
    StreamBody::Ending forEachPiece(const StreamBody::Take& take) const override
    {
        take(joined());
        return {};
    }
    Data joined() const override
    {
        std::call_once(once_, [&] { bytes_ = make_(); });
        return bytes_;
    }

private:
    std::int64_t length_;
    std::function<Data()> make_;
    mutable std::once_flag once_;
    mutable Data bytes_;
};

}  // namespace

StreamBody::StreamBody(StreamData bytes) : StreamBody(std::make_shared<const CapturedBytes>(std::move(bytes))) {}
StreamBody::StreamBody(std::shared_ptr<const Source> source) : made_(std::make_shared<Made>(std::move(source))) {}

StreamBody StreamBody::lazily(std::int64_t length, std::function<Data()> make)
{
    return StreamBody(std::make_shared<const BytesOnDemand>(length, std::move(make)));
}

std::int64_t StreamBody::length() const
{
    if (!made_) return bytes_.size();
    const auto known = made_->source->knownLength();
    return known ? *known : made_->measures().length;
}

Data StreamBody::bytes() const { return made_ ? made_->bytes() : bytes_; }

StreamBody::Ending StreamBody::forEachPiece(const Take& take) const
{
    if (made_) return made_->source->forEachPiece(take);
    if (!bytes_.isEmpty()) take(bytes_);
    return {};
}

StreamBody::Ending StreamBody::ending() const { return made_ ? made_->measures().ending : Ending{}; }

}  // namespace sealscope
