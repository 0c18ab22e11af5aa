// SPDX-License-Identifier: Apache-2.0
#include "app/records/PackedText.h"

#include <new>
#include <zstd.h>

namespace sealscope {

PackedText::PackedText() : packer_(ZSTD_createCCtx()), room_(ZSTD_CStreamOutSize())
{
    if (!packer_) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(packer_.get(), ZSTD_c_compressionLevel, 1);
}

void PackedText::Free::operator()(ZSTD_CCtx_s* packer) const { ZSTD_freeCCtx(packer); }

void PackedText::pack(std::string_view text, bool isLast)
{
    ZSTD_inBuffer input{text.data(), text.size(), 0};
    for (std::size_t left = 1; left > 0 && (isLast || input.pos < input.size);) {
        ZSTD_outBuffer output{room_.data(), room_.size(), 0};
        left = ZSTD_compressStream2(packer_.get(), &output, &input, isLast ? ZSTD_e_end : ZSTD_e_continue);
        if (ZSTD_isError(left)) throw std::bad_alloc();  // nothing else can go wrong
        packed_.insert(packed_.end(), room_.data(), room_.data() + output.pos);
        if (!isLast) left = 1;
    }
}

void PackedText::forEachPiece(const std::function<bool(std::string_view)>& take)
{
    pack({}, true);
    const std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> unpacker(ZSTD_createDCtx(), ZSTD_freeDCtx);
    if (!unpacker) throw std::bad_alloc();
    ZSTD_inBuffer input{packed_.data(), packed_.size(), 0};
    for (bool isWanted = true; isWanted;) {
        ZSTD_outBuffer output{room_.data(), room_.size(), 0};
        const std::size_t left = ZSTD_decompressStream(unpacker.get(), &output, &input);
        if (ZSTD_isError(left)) throw std::bad_alloc();
        isWanted = (output.pos == 0 || take({reinterpret_cast<const char*>(room_.data()), output.pos})) && left > 0;
    }
}

}  // namespace sealscope
