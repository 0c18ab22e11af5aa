// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/SecretMemory.h"
#include "python/core/Pieces.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace sealscope::python {

/// The lines of a whole capture's key log, to be handed out to those who need them.
class KeyLines {
public:
    /// The first 8 bytes of a client random, as they lie in memory.
    using Client = std::uint64_t;
    /// Positions of lines, ascending; nothing stands for all of them.
    using Lines = std::optional<std::vector<std::uint32_t>>;

    explicit KeyLines(SecretText text);

    /// What a look through a file found; see `FileScan`.
    struct File {
        std::vector<std::pair<PairHash, Client>> clients;
        std::vector<PairHash> strangers;
        Travelling travelling;
    };
    struct Needs {
        std::int64_t connections = 0;  ///< of the capture that have secrets here
        std::vector<Lines> ofFiles;    ///< for the pairs that stay there
        std::map<std::int64_t, Lines> ofGroups;
    };
    /// Who needs which lines: those of the clients that there are, or all where a connection begins in its middle.
    Needs needs(std::span<const File> files) const;

    bool has(Client client) const { return linesOf_.contains(client); }
    /// The lines of some clients, and those that belong to no client; none where there are none of these clients.
    Lines linesOf(std::vector<Client> clients) const;
    /// Those that one or the other needs.
    static Lines together(const std::vector<Lines>& several);
    SecretText text(const Lines& lines) const;

private:
    SecretText text_;
    std::vector<std::pair<std::size_t, std::size_t>> lines_;  ///< where they begin and end
    /// Of a client, a stretch of `ofClients_`.
    std::unordered_map<Client, std::pair<std::uint32_t, std::uint32_t>> linesOf_;
    std::vector<std::uint32_t> ofClients_;
    std::vector<std::uint32_t> ofAnybody_;
};

}  // namespace sealscope::python
