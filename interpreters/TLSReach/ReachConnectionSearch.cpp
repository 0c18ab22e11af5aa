// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamDecryption.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachWalk.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <array>
#include <vector>

// A traffic secret of TLS 1.3 opens records without any hello: what a hello would have said, the suite and whose connection it
// is, comes out by trying. The randoms of TLS 1.2 are part of its keys, so there the server's hello has to be there.

namespace sealscope {

namespace {

constexpr std::int64_t costOfKeys = 16'384;  // to derive them, in bytes to decrypt
constexpr std::int64_t costPerByte = 16;     // that the connection's own bytes pay for

constexpr std::array<std::uint16_t, 5> suitesOfTLS13{0x1301, 0x1302, 0x1303, 0x1304, 0x1305};

/// All that there is where there are few guesses, of client and suite, else less for each.
GuessEffort effortFor(std::int64_t guesses)
{
    constexpr std::int64_t few = 80, leastTrials = 8;
    if (guesses <= few) return {.records = 4, .trials = ReachWalk::mostTrials};
    return {.records = 2, .trials = static_cast<int>(std::max(few * ReachWalk::mostTrials / guesses, leastTrials))};
}

/// Suites of TLS 1.3 that use a hash of this length; where there is little effort for each, without those that hardly anybody uses.
std::vector<std::uint16_t> suitesOf(std::int64_t secretLength, GuessEffort effort)
{
    constexpr std::uint16_t firstRare = 0x1304;  // AES-CCM
    std::vector<std::uint16_t> suites;
    for (const std::uint16_t code : suitesOfTLS13) {
        const auto suite = ReachSuite::of(code);
        const bool isWorthATrial = code < firstRare || effort.trials == ReachWalk::mostTrials;
        if (suite && digestSize(suite->prf) == secretLength && isWorthATrial) suites.push_back(code);
    }
    return suites;
}

}  // namespace

/// Adds what it takes to `cost`.
bool ReachConnection::opensAs(const HandshakeParameters& parameters, GuessEffort effort, std::int64_t& cost)
{
    if (!parameters.suite) return false;
    parameters_ = parameters;
    for (const Direction direction : {Direction::serverToClient, Direction::clientToServer}) {
        ReachWalk walk(*this, direction);
        if (!walk.hasKeys()) continue;
        const bool opens = walk.opensWithin(effort);
        cost += costOfKeys + walk.trialBytes();
        if (!opens) continue;
        parameters_->isSuiteKnown = true;
        return true;
    }
    parameters_.reset();
    return false;
}

/// What tells this search from others: the connection's number, how much there is of it, and how each side begins.
std::string ReachConnection::nameOfSearch() const
{
    constexpr std::int64_t longestBeginning = 64;
    std::vector<std::uint8_t> facts;
    const auto addNumber = [&](std::int64_t number) {
        for (int i = 0; i < 8; ++i) facts.push_back(static_cast<std::uint8_t>(number >> 8 * i));
    };
    addNumber(stream_.key.number);
    for (const Direction direction : {Direction::serverToClient, Direction::clientToServer}) {
        const StreamData& data = stream_.data(direction);
        addNumber(data.size());
        addNumber(data.holeBytes());
        const std::size_t at = facts.size();
        facts.resize(at + static_cast<std::size_t>(std::min(data.size(), longestBeginning)));
        data.copy(0, std::span(facts).subspan(at));
    }
    const SecretBytes name = digest(HashFunction::sha256, {DataView(facts)});
    return {name.begin(), name.end()};
}

/// The client of the hello, whose server's is missing or cannot be read.
std::vector<KeyLogClients::Client> ReachConnection::ownClient() const
{
    std::vector<KeyLogClients::Client> own;
    for (const Direction direction : {Direction::serverToClient, Direction::clientToServer})
        if (const auto length = secrets_->keyLog.secrets.length(secretLabels(direction).application, clientHello_->clientRandom))
            if (own.empty() || own.front().secretLength != *length) own.push_back({clientHello_->clientRandom, *length});
    return own;
}

void ReachConnection::settleWithoutHellos()
{
    if (secrets_->keyLog.secrets.isEmpty()) return;
    const KeyLogClients& clients = isBeforeTLS13WithoutClient() ? secrets_->clientsOfTLS12() : secrets_->clientsOfTLS13();
    if (clients.all.empty() && !clientHello_) return;
    const std::string name = nameOfSearch();
    auto outcome = secrets_->searches->recall(name);
    if (!outcome) {
        outcome = search(clientHello_ ? ownClient() : secrets_->searches->likeliest(stream_.key.number, clients));
        secrets_->searches->remember(name, *outcome);
    }
    if (outcome->isSettled) {
        secrets_->searches->meet(stream_.key.number, outcome->clientRandom);
        parameters_ = supposed(outcome->clientRandom, outcome->suite);
        parameters_->isSuiteKnown = true;
    } else if (!clientHello_) {
        search_ = TLSSecretSearchReport{.candidates = std::ssize(clients.all), .tried = outcome->tried};
    }
}

SearchMemory::Outcome ReachConnection::search(const std::vector<KeyLogClients::Client>& clients)
{
    std::int64_t paid = 0;
    for (const Direction direction : {Direction::serverToClient, Direction::clientToServer})
        paid += costPerByte * (stream_.data(direction).size() - stream_.data(direction).holeBytes());
    SearchMemory::Outcome outcome;
    const bool isTLS12 = isBeforeTLS13WithoutClient();
    const auto effort = effortFor(std::ssize(clients) * (isTLS12 ? 1 : std::ssize(suitesOfTLS13)));
    for (const auto& [random, secretLength] : clients) {
        if (paid <= 0 && secrets_->allowance->isSpent()) break;
        ++outcome.tried;
        auto suites = suitesOf(secretLength, effort);
        if (isTLS12)
            suites = {serverHello_->cipherSuite};
        else if (serverHello_)
            std::erase_if(suites, [&](std::uint16_t suite) { return suite != serverHello_->cipherSuite; });
        for (const std::uint16_t suite : suites) {
            std::int64_t cost = 0;
            outcome.isSettled = opensAs(supposed(Data(random), suite), effort, cost);
            secrets_->allowance->charge(std::max<std::int64_t>(cost - paid, 0));
            paid = std::max<std::int64_t>(paid - cost, 0);
            if (!outcome.isSettled) continue;
            outcome.clientRandom = Data(random);
            outcome.suite = suite;
            return outcome;
        }
    }
    return outcome;
}

}  // namespace sealscope
