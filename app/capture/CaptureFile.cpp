// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureFile.h"

#include <algorithm>
#include <cstdint>

namespace sealscope {

std::expected<std::unique_ptr<CaptureFile>, ReadError> CaptureFile::open(const std::string& name, CaptureInputOptions options)
{
    auto opened = CaptureInput::open(name, std::move(options));
    if (!opened) return std::unexpected(opened.error());
    std::unique_ptr<CaptureInput> input = std::move(*opened);
    input->require(4);
    const DataView head(input->data(), std::min<std::int64_t>(input->available(), 4));
    if (auto pcap = PcapReader::recognise(head)) {
        if (!pcap->begin(*input)) return std::unexpected(*pcap->damage());
        return std::unique_ptr<CaptureFile>(new CaptureFile(std::move(input), std::move(*pcap)));
    }
    if (PcapngReader::recognises(head)) return std::unique_ptr<CaptureFile>(new CaptureFile(std::move(input), PcapngReader()));
    if (input->failure()) return std::unexpected(*input->failure());
    if (head.isEmpty()) return std::unexpected(ReadError{.problem = ReadError::Problem::isEmpty});
    std::int64_t bytes = 0;
    for (std::int64_t i = 0; i < head.size(); ++i) bytes |= std::int64_t{head[i]} << 8 * i;
    return std::unexpected(ReadError{.problem = ReadError::Problem::isNoCapture, .numbers = {bytes, head.size()}});
}

std::unique_ptr<CaptureFile> CaptureFile::ahead(std::int64_t offset) const
{
    auto input = input_->ahead(offset);
    if (!input) return nullptr;
    return std::visit([&](const auto& reader) { return std::unique_ptr<CaptureFile>(new CaptureFile(std::move(input), reader.ahead())); },
                      reader_);
}

std::int64_t CaptureFile::findPacket(std::int64_t from, std::int64_t to) const
{
    const DataView file = input_->bytes(0, input_->size());
    return std::visit([&](const auto& reader) { return reader.findPacket(file, from, to); }, reader_);
}

bool CaptureFile::goOnAt(std::int64_t offset, std::int64_t packets)
{
    if (!input_->verify() || !input_->skip(offset - input_->position())) return false;
    std::visit([&](auto& reader) { reader.addPackets(packets); }, reader_);
    return true;
}

const std::optional<ReadError>& CaptureFile::damage() const
{
    return std::visit([](const auto& reader) -> const std::optional<ReadError>& { return reader.damage(); }, reader_);
}

PcapngReader::PassedOver CaptureFile::passedOver() const
{
    const auto* reader = std::get_if<PcapngReader>(&reader_);
    return reader ? reader->passedOver() : PcapngReader::PassedOver();
}

SecretText CaptureFile::takeKeyLog()
{
    auto* const reader = std::get_if<PcapngReader>(&reader_);
    return reader ? reader->takeKeyLog() : SecretText();
}

}  // namespace sealscope
