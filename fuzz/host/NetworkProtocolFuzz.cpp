// SPDX-License-Identifier: Apache-2.0
// A stored protocol list that anybody may have written: what is taken from it can be stored and read again.
#include "fuzz/Require.h"
#include "host/VELDependencies/VELNetworkProtocol.h"

using namespace sealscope;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView json(data, static_cast<std::int64_t>(size));
    for (const auto keys : {JSONKeyStrategy::useDefaultKeys, JSONKeyStrategy::convertFromSnakeCase}) {
        const auto protocols = decodedProtocols(json, keys);
        if (!protocols) {
            require(!protocols.error().text().empty(), "a refusal has a reason");
            continue;
        }
        const auto stored = encodedProtocols(*protocols);
        require(stored.has_value(), "what was read is UTF-8");
        const auto again = decodedProtocols(*stored, keys);
        require(again && *again == *protocols, "what is stored is read again");
    }
    return 0;
}
