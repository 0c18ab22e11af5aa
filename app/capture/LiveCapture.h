// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/capture/CapturedPacket.h"
#include "platform/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>

namespace sealscope {

struct LiveOptions {
    std::string interface;                        ///< its name, or "any"
    std::string filter;                           ///< in the pcap-filter language; empty for none
    std::string writeTo;                          ///< a pcap file that keeps what passes the filter, for its owner alone; empty for none
    ExistingFile existing = ExistingFile::stays;  ///< with the name of the file to write
    std::int32_t snapLength = 262'144;
    bool isPromiscuous = true;
    /// Gives up, once the interface is open and before any file is, what only opening it needed: the root account for the user
    /// behind sudo or a set-uid program, or else for nobody's, and every capability. Call it before threads start.
    bool dropsPrivileges = true;
};

/// What the kernel has counted since the interface was opened.
struct LiveCounts {
    std::int64_t received = 0;            ///< packets that passed the filter; on loopback each counts on its way out and in
    std::int64_t droppedByKernel = 0;     ///< that nobody fetched in time
    std::int64_t droppedByInterface = 0;  ///< where the driver tells
};

/// Packets of a network interface, one by one and within some hundredths of a second of their arrival. Read by one thread.
class LiveCapture {
public:
    /// Opens the interface. The error's file is the interface or the file to write; empty when the filter does not compile.
    static std::expected<std::unique_ptr<LiveCapture>, CaptureError> open(const LiveOptions& options);
    ~LiveCapture();

    enum class Outcome {
        packet,   ///< `packet` is filled; its frame is lent until the next call
        timeout,  ///< none came
        stopped,  ///< `stop` was called; packets that had arrived before were handed out
        failed    ///< see `error`: the interface is gone
    };
    /// The next packet, for which it waits as long as `timeout`.
    Outcome next(CapturedPacket& packet, std::chrono::milliseconds timeout);
    /// Ends the waiting, now and from then on. Safe in a signal handler, and on any thread.
    void stop();

    LiveCounts counts() const;
    /// Why `next` failed.
    const CaptureError& error() const;
    /// Ends the file that is written; the reason when not all of it could be. Called by the destructor otherwise.
    std::expected<void, CaptureError> finishWriting();

    LiveCapture(const LiveCapture&) = delete;
    LiveCapture& operator=(const LiveCapture&) = delete;

private:
    struct Implementation;
    explicit LiveCapture(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
