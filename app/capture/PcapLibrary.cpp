// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <string>
#include <type_traits>

namespace sealscope {
namespace {

/// Debian's name of the interface, and that of most others.
constexpr const char* fileNames[] = {"libpcap.so.0.8", "libpcap.so.1"};

std::expected<PcapLibrary, PcapLibraryError> load()
{
    void* handle = nullptr;
    std::string reason;
    for (const char* name : fileNames) {
        handle = dlopen(name, RTLD_NOW | RTLD_LOCAL);
        if (handle) break;
        if (reason.empty()) reason = dlerror();
    }
    if (!handle) return std::unexpected(PcapLibraryError{reason});

    PcapLibrary library;
    const auto find = [&](const char* name, auto& function) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(handle, name));
        if (!function && reason.empty()) reason = fmt::format("it has no {}", name);
    };
    reason.clear();
    find("pcap_activate", library.activate);
    find("pcap_close", library.close);
    find("pcap_compile", library.compile);
    find("pcap_create", library.create);
    find("pcap_datalink", library.datalink);
    find("pcap_fopen_offline", library.fopen_offline);
    find("pcap_freecode", library.freecode);
    find("pcap_get_selectable_fd", library.get_selectable_fd);
    find("pcap_geterr", library.geterr);
    find("pcap_next_ex", library.next_ex);
    find("pcap_offline_filter", library.offline_filter);
    find("pcap_set_buffer_size", library.set_buffer_size);
    find("pcap_set_promisc", library.set_promisc);
    find("pcap_set_snaplen", library.set_snaplen);
    find("pcap_set_timeout", library.set_timeout);
    find("pcap_set_tstamp_precision", library.set_tstamp_precision);
    find("pcap_setfilter", library.setfilter);
    find("pcap_setnonblock", library.setnonblock);
    find("pcap_snapshot", library.snapshot);
    find("pcap_stats", library.stats);
    find("pcap_statustostr", library.statustostr);
    if (!reason.empty()) return std::unexpected(PcapLibraryError{reason});
    return library;
}

}  // namespace

std::string PcapLibraryError::text() const { return fmt::format("libpcap cannot be loaded: {}", linkersReason); }

const std::expected<PcapLibrary, PcapLibraryError>& PcapLibrary::get()
{
    static const auto library = load();
    return library;
}

}  // namespace sealscope
