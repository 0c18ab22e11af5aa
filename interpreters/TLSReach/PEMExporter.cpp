// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/PEMExporter.h"

#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachMessages.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <string>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

class PEMExporter final : public StreamExporter {
public:
    void begin(const Write&) override {}
    void end(const Write&) override {}

    void add(const ExportedStream& exported, const Write& write) override
    {
        const auto put = [&](Direction direction, std::string chain) {
            if (chain.empty() || !chains_.insert(digest(HashFunction::sha256, {DataView(chain)})).second) return;
            write(DataView(heading(exported.stream, direction) + chain + '\n'));
        };
        if (!exported.isContinued) {
            chains_.clear();
            for (const Direction direction : {Direction::serverToClient, Direction::clientToServer})
                for (const AssembledMessage& message : clearHandshake(exported.stream.data(direction)).messages)
                    if (message.type == std::to_underlying(TLSHandshakeType::certificate))
                        put(direction, ReachMessages::pem(ReachMessages::certificates(message.body, ReachMessages::Form::upToTLS12)));
        }
        for (const StreamMessage& message : exported.interpretation.messages)
            if (const VELValue* const chain = message.attribute(ReachMessages::certificatesKey))
                if (const auto* const text = std::get_if<std::string>(chain)) put(message.direction, *text);
    }

private:
    static std::string heading(const TCPStream& stream, Direction direction)
    {
        const auto hello = TLSStreamDecryption::firstClientHello(stream.clientToServerData);
        std::string name = hello && hello->serverName ? ", server name " + *hello->serverName : std::string();
        std::ranges::replace_if(name, [](char character) { return static_cast<unsigned char>(character) < ' ' || character == 0x7F; }, '?');
        return fmt::format("# stream {}{}, sent by the {}\n", stream.key.number, name,
                           direction == Direction::serverToClient ? "server" : "client");
    }

    std::set<SecretBytes> chains_;  ///< of the last stream, by their SHA-256
};

}  // namespace

const StreamExportFormat& pemFormat()
{
    static constexpr StreamExportFormat format{
        .name = "pem",
        .description = "every certificate chain, with its stream and server name as comments",
        .fileExtension = "pem",
        .mediaType = "application/pem-certificate-chain",
        .create = []() -> std::unique_ptr<StreamExporter> { return std::make_unique<PEMExporter>(); },
        .takesParts = true};
    return format;
}

}  // namespace sealscope
