// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/WebSocketFrame.h"

namespace sealscope {

WebSocketFrame WebSocketFrame::read(StreamReader& reader, std::int64_t offset)
{
    const std::uint8_t first = reader.u8(offset), second = reader.u8(offset + 1);
    WebSocketFrame frame{.opcode = Opcode{static_cast<std::uint8_t>(first & 0x0F)},
                         .isFinal = (first & 0x80) != 0,
                         .isCompressed = (first & 0x40) != 0,
                         .isMasked = (second & 0x80) != 0,
                         .length = second & 0x7F,
                         .offset = offset};
    std::int64_t next = offset + 2;
    bool isShortest = true;
    if (frame.length >= 126) {
        const int bytes = frame.length == 126 ? 2 : 8;
        std::uint64_t length = 0;
        for (int i = 0; i < bytes; ++i) length = length << 8 | reader.u8(next++);
        isShortest = bytes == 2 ? length >= 126 : length > 0xFFFF && length < std::uint64_t{1} << 62;
        frame.length = static_cast<std::int64_t>(length & 0x3FFF'FFFF'FFFF'FFFF);
    }
    if (frame.isMasked)
        for (std::uint8_t& byte : frame.mask) byte = reader.u8(next++);
    if (next <= reader.size()) frame.headerLength = next - offset;

    const auto opcode = static_cast<std::uint8_t>(frame.opcode);
    frame.isPossible = isShortest && (first & 0x30) == 0 && (opcode <= 2 || (opcode >= 8 && opcode <= 10));
    if (frame.isControl()) frame.isPossible = frame.isPossible && frame.isFinal && !frame.isCompressed && frame.length <= 125;
    if (frame.opcode == Opcode::continuation && frame.isCompressed) frame.isPossible = false;
    return frame;
}

}  // namespace sealscope
