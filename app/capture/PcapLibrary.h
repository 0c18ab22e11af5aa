// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/PcapLibraryError.h"

#include <expected>
#include <pcap/pcap.h>

namespace sealscope {

/// The functions of libpcap that are used here, by the names that they have behind "pcap_". It is loaded when it is first wanted: most
/// runs neither filter nor capture, and half a dozen libraries more come with it, which take longer to load than a small capture to read.
struct PcapLibrary {
    decltype(&pcap_activate) activate = nullptr;
    decltype(&pcap_close) close = nullptr;
    decltype(&pcap_compile) compile = nullptr;
    decltype(&pcap_create) create = nullptr;
    decltype(&pcap_datalink) datalink = nullptr;
    decltype(&pcap_fopen_offline) fopen_offline = nullptr;
    decltype(&pcap_freecode) freecode = nullptr;
    decltype(&pcap_get_selectable_fd) get_selectable_fd = nullptr;
    decltype(&pcap_geterr) geterr = nullptr;
    decltype(&pcap_next_ex) next_ex = nullptr;
    decltype(&pcap_offline_filter) offline_filter = nullptr;
    decltype(&pcap_set_buffer_size) set_buffer_size = nullptr;
    decltype(&pcap_set_promisc) set_promisc = nullptr;
    decltype(&pcap_set_snaplen) set_snaplen = nullptr;
    decltype(&pcap_set_timeout) set_timeout = nullptr;
    decltype(&pcap_set_tstamp_precision) set_tstamp_precision = nullptr;
    decltype(&pcap_setfilter) setfilter = nullptr;
    decltype(&pcap_setnonblock) setnonblock = nullptr;
    decltype(&pcap_snapshot) snapshot = nullptr;
    decltype(&pcap_stats) stats = nullptr;
    decltype(&pcap_statustostr) statustostr = nullptr;

    /// Loads it the first time, which a confined process cannot.
    static const std::expected<PcapLibrary, PcapLibraryError>& get();
};

}  // namespace sealscope
