// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PacketFilter.h"

#include <cstdio>
#include <fmt/format.h>
#include <map>
#include <pcap/pcap.h>
#include <utility>

namespace sealscope {
namespace {

constexpr std::uint32_t longestSnapshot = 262'144;

/// The compiler's handle for a link type: a file without packets, since only a file's handle knows its byte order.
pcap_t* openEmptyFile(std::uint32_t linkType, bool isSwapped)
{
    pcap_file_header header = {};
    header.magic = 0xa1b2'c3d4;
    header.version_major = 2;
    header.version_minor = 4;
    header.snaplen = longestSnapshot;
    header.linktype = linkType;
    if (isSwapped) {
        header.magic = __builtin_bswap32(header.magic);
        header.version_major = __builtin_bswap16(header.version_major);
        header.version_minor = __builtin_bswap16(header.version_minor);
        header.snaplen = __builtin_bswap32(header.snaplen);
        header.linktype = __builtin_bswap32(header.linktype);
    }
    std::FILE* const file = fmemopen(&header, sizeof header, "rb");
    if (!file) return nullptr;
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const handle = pcap_fopen_offline(file, reason);  // reads the header and keeps no pointer to it
    if (!handle) std::fclose(file);
    return handle;
}

}  // namespace

struct PacketFilter::Implementation {
    /// One compiled expression; without a program nothing passes.
    struct Program {
        bpf_program code = {};
        bool isCompiled = false;
        Program() = default;
        Program(const Program&) = delete;
        Program& operator=(const Program&) = delete;
        ~Program()
        {
            if (isCompiled) pcap_freecode(&code);
        }
    };

    /// Empty on success.
    std::string compile(std::uint32_t linkType, bool isSwapped)
    {
        const auto key = std::pair(linkType, isSwapped);
        Program& program = programs[key];
        currentKey = key;
        current = &program;
        pcap_t* const handle = openEmptyFile(linkType, isSwapped);
        if (!handle) return "no memory for the filter's compiler";
        program.isCompiled = pcap_compile(handle, &program.code, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
        std::string reason = program.isCompiled ? "" : pcap_geterr(handle);
        pcap_close(handle);
        return reason;
    }

    std::string expression;
    std::map<std::pair<std::uint32_t, bool>, Program> programs;
    std::pair<std::uint32_t, bool> currentKey;
    Program* current = nullptr;
    std::string failure;
    std::int64_t failureCount = 0;
};

PacketFilter::PacketFilter(std::unique_ptr<Implementation> implementation) : implementation_(std::move(implementation)) {}
PacketFilter::PacketFilter(PacketFilter&&) noexcept = default;
PacketFilter& PacketFilter::operator=(PacketFilter&&) noexcept = default;
PacketFilter::~PacketFilter() = default;

bool PacketFilter::isKnown(std::uint32_t linkType) { return compile("ip", linkType, false).has_value(); }

std::expected<PacketFilter, std::string> PacketFilter::compile(const std::string& expression, std::uint32_t linkType, bool isSwapped)
{
    auto implementation = std::make_unique<Implementation>();
    implementation->expression = expression;
    if (std::string reason = implementation->compile(linkType, isSwapped); !reason.empty()) return std::unexpected(std::move(reason));
    return PacketFilter(std::move(implementation));
}

bool PacketFilter::passes(const CapturedPacket& packet, bool isSwapped)
{
    Implementation& self = *implementation_;
    if (const auto key = std::pair(packet.linkType, isSwapped); key != self.currentKey) {
        if (const auto known = self.programs.find(key); known != self.programs.end()) {
            self.currentKey = key;
            self.current = &known->second;
        } else if (const std::string reason = self.compile(packet.linkType, isSwapped); !reason.empty() && self.failure.empty()) {
            self.failure = fmt::format("link type {} ({})", packet.linkType, reason);
        }
    }
    if (!self.current->isCompiled) {
        ++self.failureCount;
        return false;
    }
    pcap_pkthdr header = {};
    header.caplen = static_cast<bpf_u_int32>(packet.frame.size());
    header.len = static_cast<bpf_u_int32>(packet.originalLength);
    return pcap_offline_filter(&self.current->code, &header, packet.frame.data()) != 0;
}

std::int64_t PacketFilter::failureCount() const { return implementation_->failureCount; }

std::string PacketFilter::takeFailure()
{
    return fmt::format("{} packets were left out, since the filter cannot be applied to {}",
                       std::exchange(implementation_->failureCount, 0), implementation_->failure);
}

}  // namespace sealscope
