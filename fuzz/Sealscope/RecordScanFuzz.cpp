// SPDX-License-Identifier: Apache-2.0
// One packet's payload: its records, its tree, and everything that the host may ask the analyzer.
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "fuzz/PieceMutator.h"
#include "fuzz/Require.h"
#include "platform/UTF8.h"
#include "tests/Sealscope/EntriesTwin.h"

using namespace sealscope;

namespace {

/// Payload bytes cut into stretches whose lengths the first byte gives.
class CutSource final : public StreamByteSource {
public:
    explicit CutSource(DataView bytes) : bytes_(bytes), step_(1 + bytes.u8(0) % 7) {}
    DataView stretch(std::int64_t offset) const override { return bytes_.sub(offset, step_ - offset % step_); }

private:
    DataView bytes_;
    std::int64_t step_;
};

void checkRecords(DataView payload)
{
    const auto records = TLSDissector::parseRecords(payload);
    std::int64_t end = 0;
    for (const TLSRecord& record : records) {
        require(record.recordOffset == end, "records touch");
        require(record.isTruncated == (record.endOffset() > payload.size()), "a record is truncated when it passes the end");
        require(!record.isTruncated || &record == &records.back(), "a truncated record is the last");
        end = record.endOffset();
    }
    require(end + TLSRecord::headerLength > payload.size(), "the scan goes on while headers fit");
    const StreamData cut(std::make_shared<CutSource>(payload), payload.size());
    require(twin::records(cut) == records, "a stream has the records of its bytes");
    require(TLSDissector::looksLikeTLS(cut) == TLSDissector::looksLikeTLS(payload), "a stream starts as its bytes do");
}

std::int64_t checkNode(const VELNodeProtocol& node, int depth)
{
    // Root, record, message, list, entry, field.
    require(depth <= 6, "a tree is six nodes deep at most");
    require(!node.name().empty(), "a node has a name");
    require(utf8::isWellFormed(DataView(node.name())), "a name is text");
    require(node.headerLocations().has_value() == node.headerLengths().has_value(), "a range is whole or missing");
    if (node.value()) require(utf8::isWellFormed(DataView(std::get<std::string>(*node.value()))), "a value is text");
    std::int64_t nodes = 1;
    node.forEachChild([&](const auto& child) {
        nodes += checkNode(*child, depth + 1);
        return true;
    });
    return nodes;
}

void checkText(const std::optional<VELValue>& value)
{
    if (value) require(utf8::isWellFormed(DataView(std::get<std::string>(*value))), "a column is text");
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maximum, unsigned seed)
{
    static const PieceMutator mutator = PieceMutator::records(0);
    return mutator.mutate(data, size, maximum, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView payload(data, static_cast<std::int64_t>(size));
    checkRecords(payload);

    static const Bundle noBundle("");
    const VELNodeList tree = TLSDissector::nodes(Data(payload), noBundle);
    require(tree.size() == 1, "a tree has one root");
    // A record of five bytes makes up to seven nodes, a suite of two bytes one. Names in certificates cost bytes, too.
    require(checkNode(*tree.front(), 1) <= 2 + 2 * payload.size(), "a tree grows with its payload");

    const auto analyzer = TLSProtocolAnalyzer::create(payload, {});
    require((analyzer != nullptr) == TLSDissector::looksLikeTLS(payload), "an analyzer is for TLS");
    if (!analyzer) return 0;
    require(analyzer->protocolSize() == std::min<std::int64_t>(payload.size(), 65535), "the size is that of the payload");
    const auto line = analyzer->protocolInfo(payload);
    require(line && line->starts_with("TLS 1."), "a summary begins with the version that the start test lets through");
    require(utf8::isWellFormed(DataView(*line)), "a summary is text");
    const auto serverName = analyzer->value("tlsServerName", payload);
    checkText(serverName);
    checkText(analyzer->value("tlsVersion", payload));
    if (serverName && !std::get<std::string>(*serverName).empty())
        require(line->contains("Client Hello (" + std::get<std::string>(*serverName) + ')'), "the summary has the column's server name");
    return 0;
}
