// SPDX-License-Identifier: Apache-2.0
#include "app/session/SessionPlugIns.h"

#include "app/session/Exchanges.h"
#include "app/session/LiveStream.h"

#include <algorithm>
#include <iterator>
#include <ranges>
#include <utility>

namespace sealscope {

namespace {

/// A stream as an interpreter may be given it.
TCPStream readable(const VELStreamInterpreting& interpreter, const TCPStream& stream)
{
    TCPStream given = stream;
    if (interpreter.readsPieceByPiece) return given;
    given.clientToServerData = stream.clientToServerData.kept();
    given.serverToClientData = stream.serverToClientData.kept();
    return given;
}

}  // namespace

SessionPlugIns::SessionPlugIns(std::shared_ptr<const KeyLogSources> secrets, const PlugInOptions& options)
    : secrets_(std::move(secrets)), options_(options), interpreters_(VELStreamInterpreterRegistry::shared().snapshot())
{
    for (auto& probe : TLSDecryptionProbeRegistry::shared().snapshot()) {
        if (probe->reach() > options.reach) continue;
        auto own = probe->withSecrets(secrets_);
        if (!own) withoutKeyLogs_.push_back(probe.get());
        probes_.push_back(own ? std::move(own) : std::move(probe));
    }
    std::ranges::stable_sort(probes_, {}, [](const auto& probe) { return probe->reach(); });
}

bool SessionPlugIns::canOpen(const TLSStreamDecryptionProbing& probe) const
{
    return std::ranges::find(withoutKeyLogs_, &probe) != withoutKeyLogs_.end() || !probe.keyMaterial().isEmpty();
}

std::vector<StreamFact> SessionPlugIns::facts(const TCPStream& stream) const
{
    std::vector<StreamFact> facts;
    for (const auto& describer : describers_) std::ranges::move(describer->facts(stream, probes_), std::back_inserter(facts));
    return facts;
}

StreamContext SessionPlugIns::context() const
{
    return {.largestDecodedBody = options_.largestDecodedBody, .decodingAllowance = options_.decodingAllowance, .host = this};
}

const VELStreamInterpreting* SessionPlugIns::interpreter(const TCPStream& stream) const
{
    return VELStreamInterpreter::firstInterpreter(stream, interpreters_, context());
}

bool SessionPlugIns::isSecured(const TCPStream& stream) const
{
    return std::ranges::any_of(interpreters_, [&](const VELStreamInterpreting* interpreter) {
        return interpreter->layer == StreamLayer::security && interpreter->canInterpret(stream, context());
    });
}

std::optional<StreamInterpretation> SessionPlugIns::decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const
{
    // Who reaches farther opens what the others open, and shows more of it.
    for (const auto& probe : probes_ | std::views::reverse)
        if (canOpen(*probe))
            if (auto interpretation = probe->decryptedInterpretation(stream, context)) return interpretation;
    return std::nullopt;
}

const VELStreamInterpreting* SessionPlugIns::interpreterOfCarried(const TCPStream& stream, const StreamContext& context) const
{
    if (options_.carried == CarriedStreams::shownAsBytes || context.depth > StreamContext::deepest) return nullptr;
    StreamContext offered = context;
    offered.host = this;
    const auto found = std::ranges::find_if(interpreters_, [&](const VELStreamInterpreting* interpreter) {
        return interpreter->layer != context.notOfferedTo && interpreter->canInterpret(stream, offered);
    });
    return found == interpreters_.end() ? nullptr : *found;
}

std::optional<StreamInterpretation> SessionPlugIns::carriedInterpretation(const TCPStream& stream, const StreamContext& context) const
{
    const VELStreamInterpreting* const interpreter = interpreterOfCarried(stream, context);
    if (!interpreter) return std::nullopt;
    StreamContext offered = context;
    offered.host = this;
    return interpreter->interpret(readable(*interpreter, stream), offered);
}

bool SessionPlugIns::tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    for (const auto& probe : probes_ | std::views::reverse)
        if (canOpen(*probe) && probe->tellDecrypted(stream, context, visit)) return true;
    return false;
}

bool SessionPlugIns::tellCarried(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    const VELStreamInterpreting* const interpreter = interpreterOfCarried(stream, context);
    if (!interpreter) return false;
    StreamContext offered = context;
    offered.host = this;
    interpreter->tell(readable(*interpreter, stream), offered, visit);
    return true;
}

std::unique_ptr<StreamExchangeReader> SessionPlugIns::exchanges(const VELStreamInterpreting& interpreter, const TCPStream& stream,
                                                                const StreamContext& context) const
{
    if (interpreter.exchanges)
        if (auto reader = interpreter.exchanges(stream, context)) return reader;
    return readerOf(interpreter.interpret(stream, context));
}

std::unique_ptr<StreamExchangeReader> SessionPlugIns::carriedExchanges(const TCPStream& stream, const StreamContext& context) const
{
    const VELStreamInterpreting* const interpreter = interpreterOfCarried(stream, context);
    if (!interpreter) return nullptr;
    StreamContext offered = context;
    offered.host = this;
    const TCPStream given = readable(*interpreter, stream);
    return interpreter->layer == StreamLayer::security ? decryptedExchanges(given, offered) : exchanges(*interpreter, given, offered);
}

std::unique_ptr<StreamFollowing> SessionPlugIns::followCarried(const StreamContext& context) const
{
    if (options_.carried == CarriedStreams::shownAsBytes || context.depth > StreamContext::deepest) return nullptr;
    return std::make_unique<LiveStream>(*this, context, LiveStream::Place::carried);
}

std::unique_ptr<StreamExchangeReader> SessionPlugIns::decryptedExchanges(const TCPStream& stream, const StreamContext& context) const
{
    for (const auto& probe : probes_ | std::views::reverse) {
        if (!canOpen(*probe)) continue;
        if (probe->tellsExchanges()) {
            if (auto reader = probe->decryptedExchanges(stream, context)) return reader;
        } else if (auto interpretation = probe->decryptedInterpretation(stream, context)) {
            return readerOf(*std::move(interpretation));
        }
    }
    return nullptr;
}

}  // namespace sealscope
