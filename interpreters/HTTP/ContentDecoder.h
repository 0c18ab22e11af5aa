// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamBody.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// How a body may be coded (RFC 9110 §8.4.1, RFC 7932, RFC 8878).
enum class ContentCoding : std::uint8_t { gzip, deflate, brotli, zstd };

std::string_view nameOf(ContentCoding coding);
/// Nothing for a coding that is not known.
std::optional<ContentCoding> contentCodingNamed(std::string_view name);

/// Undoes codings on bytes that come front to back. Not thread-safe.
class ContentDecoder {
public:
    /// How many of so many bytes that decoding makes are allowed, behind those that it has made: made, count.
    using Allow = std::function<std::int64_t(std::int64_t, std::int64_t)>;
    /// `codings` in the order in which they were applied. Neither the result nor what lies between two of them gets longer than
    /// `limit` bytes, nor all of it together than is `allowed`.
    ContentDecoder(const std::vector<ContentCoding>& codings, std::int64_t limit, Allow allowed = nullptr);
    ~ContentDecoder();

    /// Decodes further bytes; false when nothing more is wanted: the data has ended or is damaged, or `take` gave false.
    bool push(DataView bytes, const StreamBody::Take& take);
    /// No bytes follow. How it ends.
    StreamBody::Ending end();
    /// Decoded bytes so far.
    std::int64_t decodedBytes() const { return decodedBytes_; }

    class Stage;

private:
    bool pushInto(std::size_t stage, DataView bytes, const StreamBody::Take& take);

    std::vector<std::unique_ptr<Stage>> stages_;  ///< in the order of decoding
    std::vector<std::int64_t> made_;              ///< bytes out of each
    std::int64_t limit_;
    Allow allowed_;
    std::int64_t madeByAll_ = 0;
    std::int64_t decodedBytes_ = 0;
    std::string failure_;
    bool isStopped_ = false;  ///< by who takes the bytes
};

}  // namespace sealscope
