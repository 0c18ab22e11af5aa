// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Something that is known of a stream, for programs: a member of its row.
struct StreamFact {
    /// Nothing, where a stream has no such thing; a flag, a number, a text, texts, or facts of its own.
    using Value = std::variant<std::monostate, bool, std::int64_t, double, std::string, std::vector<std::string>, std::vector<StreamFact>>;

    std::string name;  ///< as programs read it: "serverName"
    Value value;
};

/// Tells facts of streams. Any thread may ask.
class StreamDescribing {
public:
    virtual ~StreamDescribing() = default;
    /// The facts of a stream: of every stream the same names in the same order, none of them a name that the row has already.
    /// `probes` are those of the session, for facts that lie under encryption.
    virtual std::vector<StreamFact> facts(const TCPStream& stream,
                                          std::span<const std::shared_ptr<const TLSStreamDecryptionProbing>> probes) const = 0;
};

/// The describers that the host knows. Any thread may call it.
class StreamDescriberRegistry {
public:
    static StreamDescriberRegistry& shared();
    void add(std::shared_ptr<const StreamDescribing> describer);
    void remove(const std::shared_ptr<const StreamDescribing>& describer);
    /// Those registered at this moment, in order of registration.
    std::vector<std::shared_ptr<const StreamDescribing>> snapshot() const;

    StreamDescriberRegistry(const StreamDescriberRegistry&) = delete;
    StreamDescriberRegistry& operator=(const StreamDescriberRegistry&) = delete;

private:
    StreamDescriberRegistry() = default;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<const StreamDescribing>> describers_;
};

}  // namespace sealscope SEALSCOPE_API
