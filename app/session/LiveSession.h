// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CapturedPacket.h"
#include "app/session/Exchanges.h"
#include "app/session/SessionPlugIns.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sealscope {

struct LiveSessionOptions {
    /// Key logs that take the place of the user's. They may grow while the session runs, and need not be there yet.
    std::vector<std::string> keyLogs;
    PlugInOptions plugIns;
    /// Bytes that one connection may hold, and all together: of a message that is longer, or of a connection whose secrets do not come,
    /// the earlier bytes are let go of.
    std::int64_t mostHeldOfOne = std::int64_t{16} << 20;
    std::int64_t mostHeld = std::int64_t{512} << 20;
    std::int64_t mostConnections = 100'000;
};

/// An exchange that has just become complete.
struct LiveExchange {
    std::int64_t stream = 0;  ///< counts connections from 0, in order of their first packets
    TCPStreamKey::Endpoint client;
    TCPStreamKey::Endpoint server;
    Exchange exchange;
};

/// What a network interface carries, while it does: connections are followed from packet to packet, opened with secrets that come
/// meanwhile, and the exchanges on them handed out as they become complete. Of a connection it holds what is not done with: messages
/// that have begun, and nothing of those before. Used by one thread.
class LiveSession {
public:
    explicit LiveSession(LiveSessionOptions options);
    ~LiveSession();

    using Take = std::function<void(LiveExchange&)>;
    /// Takes the next packet.
    void add(const CapturedPacket& packet);
    /// Reads what has come since it was called last, and looks for secrets. To be called some times a second, also when no packet comes.
    void read(const Take& take);
    /// Reads what is left: nothing more comes.
    void finish(const Take& take);

    /// Connections that were let go of since there were too many, or too much was held.
    std::int64_t givenUp() const;
    std::int64_t openConnections() const;
    /// Bytes of connections that are held.
    std::int64_t held() const;

    LiveSession(const LiveSession&) = delete;
    LiveSession& operator=(const LiveSession&) = delete;

private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
