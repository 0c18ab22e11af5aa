// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/HTTP/PackedFields.h"
#include "platform/Data.h"

#include <absl/container/flat_hash_map.h>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

struct nghttp2_hd_inflater;

namespace sealscope {

/// Decompresses the header blocks of one direction of an HTTP/2 connection, in the order in which they were sent (RFC 7541). Where
/// the capture lacks some of them, what they put into the table is unknown, and so are fields that refer to it. Not thread-safe.
class HeaderDecompressor {
public:
    HeaderDecompressor();

    /// Why the rest of a header block cannot be read.
    enum class Problem : std::uint8_t { makesNoSense, tooLong };
    /// As a clause.
    static std::string_view text(Problem problem);
    /// A header block while it is being read.
    struct Block {
        PackedFields fields;
        std::size_t count = 0;        ///< of them
        std::int64_t fieldBytes = 0;  ///< of all names and values
        std::int64_t unshown = 0;     ///< fields behind the limit
        std::int64_t unknown = 0;     ///< fields of which name or value is unknown
        std::optional<Problem> problem;
    };

    /// Header blocks are missing from here on: the table's older entries are unknown.
    void forget();
    /// Reads the next fragment of a block.
    void push(DataView fragment, Block& block);
    /// The block ends here.
    void end(Block& block);

    /// Names and values of a block that are kept, in bytes, and fields.
    static constexpr std::int64_t longestBlock = 1 << 20;
    static constexpr std::size_t mostFields = 4'096;

private:
    struct Free {
        void operator()(nghttp2_hd_inflater* inflater) const;
    };

    enum class Part : std::uint8_t { moreFollows, last };
    /// False when it makes no sense.
    bool inflate(DataView bytes, Part part, Block& block);
    static constexpr std::size_t longValue = 64;  ///< bytes; such values are shared
    void add(std::string_view name, std::string_view value, Block& block)
    {
        block.fieldBytes += std::ssize(name) + std::ssize(value);
        if (block.fieldBytes > longestBlock || block.count >= mostFields) {
            ++block.unshown;
            return;
        }
        ++block.count;
        if (value.size() < longValue)
            block.fields.append(name, value);
        else
            block.fields.append(name, shared(value));
    }
    PackedFields::SharedValue shared(std::string_view value);
    /// Reads a block field by field, stepping over what refers to unknown entries.
    void readKnownPart(DataView bytes, Block& block);

    std::unique_ptr<nghttp2_hd_inflater, Free> inflater_;
    bool isWhole_ = true;                  ///< every block so far was read
    std::vector<std::uint8_t> collected_;  ///< fragments of a block that is read field by field
    /// Long values by where the table has them: a message repeats one for a byte.
    absl::flat_hash_map<const char*, PackedFields::SharedValue> sharedValues_;
    std::size_t sharedBytes_ = 0;
};

}  // namespace sealscope
