// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureFile.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace sealscope {

std::expected<std::unique_ptr<CaptureFile>, std::string> CaptureFile::open(const std::string& name, CaptureInputOptions options)
{
    auto opened = CaptureInput::open(name, std::move(options));
    if (!opened) return std::unexpected(opened.error());
    std::unique_ptr<CaptureInput> input = std::move(*opened);
    input->require(4);
    const DataView head(input->data(), std::min<std::int64_t>(input->available(), 4));
    if (auto pcap = PcapReader::recognise(head)) {
        if (!pcap->begin(*input)) return std::unexpected(pcap->damage());
        return std::unique_ptr<CaptureFile>(new CaptureFile(std::move(input), std::move(*pcap)));
    }
    if (PcapngReader::recognises(head)) return std::unique_ptr<CaptureFile>(new CaptureFile(std::move(input), PcapngReader()));
    if (!input->failure().empty()) return std::unexpected(input->failure());
    if (head.isEmpty()) return std::unexpected(input->reader().say("is empty"));
    const auto bytes = fmt::join(head, " ");
    return std::unexpected(input->reader().say("is not a capture file (it begins with {:02x})", bytes));
}

const std::string& CaptureFile::damage() const
{
    return std::visit([](const auto& reader) -> const std::string& { return reader.damage(); }, reader_);
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
