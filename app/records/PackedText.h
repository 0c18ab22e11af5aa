// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

struct ZSTD_CCtx_s;

namespace sealscope {

/// Text that may be long and repeats itself, held in little memory until it is wanted.
class PackedText {
public:
    PackedText();
    void add(std::string_view text) { pack(text, false); }
    /// Hands all of it over in pieces until `take` gives false; nothing may be added behind it.
    void forEachPiece(const std::function<bool(std::string_view)>& take);

private:
    struct Free {
        void operator()(ZSTD_CCtx_s* packer) const;
    };
    void pack(std::string_view text, bool isLast);

    std::unique_ptr<ZSTD_CCtx_s, Free> packer_;
    std::vector<std::uint8_t> packed_;
    std::vector<std::uint8_t> room_;
};

}  // namespace sealscope
