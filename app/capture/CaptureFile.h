// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureInput.h"
#include "app/capture/PcapReader.h"
#include "app/capture/PcapngReader.h"

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace sealscope {

/// One capture file of any known format, packet by packet.
class CaptureFile {
public:
    /// Opens a file and reads its header. Fails with a reason.
    static std::expected<std::unique_ptr<CaptureFile>, ReadError> open(const std::string& name, CaptureInputOptions options);

    /// The next packet, without its number and file; its address counts from the file's first byte.
    bool next(CapturedPacket& packet)
    {
        if (auto* pcap = std::get_if<PcapReader>(&reader_)) return pcap->next(*input_, packet);
        return std::get_if<PcapngReader>(&reader_)->next(*input_, packet);
    }

    /// The same file from an offset on, for a thread of its own that reads ahead: it ends before whatever only reading in order can
    /// tell. Null where the file is not mapped. Outlived by this one.
    std::unique_ptr<CaptureFile> ahead(std::int64_t offset) const;
    /// The offset from `from` on, before `to`, at which a packet seems to begin; negative when there is none.
    std::int64_t findPacket(std::int64_t from, std::int64_t to) const;
    /// Changes whenever readers made by `ahead` before would read differently.
    std::int64_t generation() const
    {
        return std::visit([](const auto& reader) { return reader.generation(); }, reader_);
    }
    /// Goes on at `offset`, behind packets that were read ahead; false when the file turned out to be no longer what it was.
    bool goOnAt(std::int64_t offset, std::int64_t packets);

    /// Why the file could not be read to its end; nothing when it was.
    const std::optional<ReadError>& damage() const;
    /// Blocks that were passed over.
    PcapngReader::PassedOver passedOver() const;
    /// Key log text of the secrets read since it was taken last.
    SecretText takeKeyLog();
    /// That of the last packet.
    ByteOrder byteOrder() const
    {
        return std::visit([](const auto& reader) { return reader.byteOrder(); }, reader_);
    }

    CaptureInput& input() { return *input_; }
    const CaptureInput& input() const { return *input_; }

private:
    CaptureFile(std::unique_ptr<CaptureInput> input, std::variant<PcapReader, PcapngReader> reader)
        : input_(std::move(input)), reader_(std::move(reader))
    {}

    std::unique_ptr<CaptureInput> input_;
    std::variant<PcapReader, PcapngReader> reader_;
};

}  // namespace sealscope
