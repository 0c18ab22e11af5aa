// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PacketFilter.h"

#include "app/capture/PcapLibrary.h"

#include <cstdio>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <utility>

namespace sealscope {
namespace {

constexpr std::uint32_t longestSnapshot = 262'144;

/// Once something was compiled it is there.
const PcapLibrary& pcap() { return *PcapLibrary::get(); }

/// The compiler's handle for a link type: a file without packets, since only a file's handle knows its byte order.
pcap_t* openEmptyFile(std::uint32_t linkType, ByteOrder order)
{
    pcap_file_header header = {};
    header.magic = 0xa1b2'c3d4;
    header.version_major = 2;
    header.version_minor = 4;
    header.snaplen = longestSnapshot;
    header.linktype = linkType;
    if (order.isSwapped) {
        header.magic = __builtin_bswap32(header.magic);
        header.version_major = __builtin_bswap16(header.version_major);
        header.version_minor = __builtin_bswap16(header.version_minor);
        header.snaplen = __builtin_bswap32(header.snaplen);
        header.linktype = __builtin_bswap32(header.linktype);
    }
    std::FILE* const file = fmemopen(&header, sizeof header, "rb");
    if (!file) return nullptr;
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const handle = pcap().fopen_offline(file, reason);  // reads the header and keeps no pointer to it
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
            if (isCompiled) pcap().freecode(&code);
        }
    };

    std::expected<void, FilterError> compile(std::uint32_t linkType, ByteOrder order)
    {
        if (const auto& library = PcapLibrary::get(); !library)
            return std::unexpected(FilterError{.problem = FilterError::Problem::noCompiler, .compilersReason = library.error().text()});
        const auto key = std::pair(linkType, order.isSwapped);
        Program& program = programs[key];
        currentKey = key;
        current = &program;
        pcap_t* const handle = openEmptyFile(linkType, order);
        if (!handle) return std::unexpected(FilterError{.problem = FilterError::Problem::noMemory});
        program.isCompiled = pcap().compile(handle, &program.code, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
        std::expected<void, FilterError> outcome;
        if (!program.isCompiled) outcome = std::unexpected(FilterError{.compilersReason = pcap().geterr(handle)});
        pcap().close(handle);
        return outcome;
    }

    std::string expression;
    std::map<std::pair<std::uint32_t, bool>, Program> programs;
    std::pair<std::uint32_t, bool> currentKey;
    Program* current = nullptr;
    std::optional<UnfilteredPackets> unfiltered;  ///< stays, with its count, after the first
};

std::string FilterError::text() const { return problem == Problem::noMemory ? "no memory for the filter's compiler" : compilersReason; }

std::string UnfilteredPackets::text() const
{
    return fmt::format("{} packets were left out, since the filter cannot be applied to link type {} ({})", count, linkType, error.text());
}

PacketFilter::PacketFilter(std::unique_ptr<Implementation> implementation) : implementation_(std::move(implementation)) {}
PacketFilter::PacketFilter(PacketFilter&&) noexcept = default;
PacketFilter& PacketFilter::operator=(PacketFilter&&) noexcept = default;
PacketFilter::~PacketFilter() = default;

void PacketFilter::makeReady() { (void)PcapLibrary::get(); }

bool PacketFilter::isKnown(std::uint32_t linkType) { return compile("ip", linkType, {}).has_value(); }

std::expected<PacketFilter, FilterError> PacketFilter::compile(const std::string& expression, std::uint32_t linkType, ByteOrder order)
{
    auto implementation = std::make_unique<Implementation>();
    implementation->expression = expression;
    if (auto compiled = implementation->compile(linkType, order); !compiled) return std::unexpected(std::move(compiled.error()));
    return PacketFilter(std::move(implementation));
}

bool PacketFilter::passes(const CapturedPacket& packet, ByteOrder order)
{
    Implementation& self = *implementation_;
    if (const auto key = std::pair(packet.linkType, order.isSwapped); key != self.currentKey) {
        if (const auto known = self.programs.find(key); known != self.programs.end()) {
            self.currentKey = key;
            self.current = &known->second;
        } else if (const auto compiled = self.compile(packet.linkType, order); !compiled && !self.unfiltered) {
            self.unfiltered = {.count = 0, .linkType = packet.linkType, .error = compiled.error()};
        }
    }
    if (!self.current->isCompiled) {
        ++self.unfiltered->count;
        return false;
    }
    pcap_pkthdr header = {};
    header.caplen = static_cast<bpf_u_int32>(packet.frame.size());
    header.len = static_cast<bpf_u_int32>(packet.originalLength);
    return pcap().offline_filter(&self.current->code, &header, packet.frame.data()) != 0;
}

std::optional<UnfilteredPackets> PacketFilter::takeUnfiltered()
{
    std::optional<UnfilteredPackets>& unfiltered = implementation_->unfiltered;
    if (!unfiltered || unfiltered->count == 0) return std::nullopt;
    UnfilteredPackets taken = *unfiltered;
    unfiltered->count = 0;
    return taken;
}

}  // namespace sealscope
