// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/Hex.h"

#include <cstdint>
#include <nghttp2/nghttp2.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// The pieces one after another; they are made in this order, as compression wants it.
inline std::string inOrder(std::initializer_list<std::string> pieces)
{
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
}

/// Writes one direction of an HTTP/2 connection; header blocks are compressed by nghttp2.
class HTTP2Writer {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;
    /// Frame types (RFC 9113 §6).
    enum class Type : std::uint8_t { data, headers, priority, rstStream, settings, pushPromise, ping, goAway, windowUpdate, continuation };
    static constexpr std::uint8_t endStream = 1, endHeaders = 4;

    HTTP2Writer() { nghttp2_hd_deflate_new(&deflater_, 4'096); }
    ~HTTP2Writer() { nghttp2_hd_deflate_del(deflater_); }
    HTTP2Writer(const HTTP2Writer&) = delete;
    HTTP2Writer& operator=(const HTTP2Writer&) = delete;

    static std::string frame(Type type, std::uint8_t flags, std::uint32_t stream, std::string_view payload)
    {
        std::string bytes;
        for (const int shift : {16, 8, 0}) bytes += static_cast<char>(payload.size() >> shift);
        bytes += static_cast<char>(type);
        bytes += static_cast<char>(flags);
        for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(stream >> shift);
        return bytes.append(payload);
    }
    std::string block(const Fields& fields)
    {
        std::vector<nghttp2_nv> list;
        for (const auto& [name, value] : fields)
            list.push_back({reinterpret_cast<std::uint8_t*>(const_cast<char*>(name.data())),
                            reinterpret_cast<std::uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(), 0});
        std::string bytes(nghttp2_hd_deflate_bound(deflater_, list.data(), list.size()), '\0');
        const ssize_t size =
            nghttp2_hd_deflate_hd(deflater_, reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size(), list.data(), list.size());
        bytes.resize(static_cast<std::size_t>(size));
        return bytes;
    }
    std::string headers(std::uint32_t stream, const Fields& fields, std::uint8_t flags = 0)
    {
        return frame(Type::headers, flags | endHeaders, stream, block(fields));
    }
    static std::string data(std::uint32_t stream, std::string_view payload, std::uint8_t flags = 0)
    {
        return frame(Type::data, flags, stream, payload);
    }
    static std::string preface() { return "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(Type::settings, 0, 0, {}); }

    static Fields get(std::string path, std::string method = "GET")
    {
        return {{":method", std::move(method)}, {":scheme", "https"}, {":authority", "h"}, {":path", std::move(path)}};
    }

private:
    nghttp2_hd_deflater* deflater_ = nullptr;
};

}  // namespace sealscope
