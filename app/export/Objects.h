// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/VELStreamInterpreting.h"
#include "platform/FileDescriptor.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace sealscope {

/// A body that was saved, or why it was not.
struct SavedObject {
    std::int64_t stream = 0;
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;  ///< who sent it
    std::string file;                                                         ///< its path; empty when it could not be written
    std::string name;                                                         ///< the suggested one, made safe
    std::optional<std::string> url;
    std::optional<std::string> contentType;
    std::int64_t bytes = 0;  ///< written
    bool isComplete = true;
    std::string remark;                  ///< why it is not complete, as a clause
    std::optional<FileProblem> problem;  ///< why it could not be written
};

/// A name from the wire as one that any file system takes: one path component without control, invisible or reserved
/// characters, not hidden, of at most 200 bytes. "object" where nothing is left of it.
std::string safeFileName(std::string_view name);

/// Saves the bodies of messages into a folder, each under a name of its own; without a folder ("") they are only measured. Used by one
/// thread.
class ObjectFolder {
public:
    enum class Existing : std::uint8_t { kept, replaced };
    ObjectFolder(std::string folder, Existing existing) : folder_(std::move(folder)), existing_(existing) {}

    /// Saves a message's body, piece by piece. `url` is that of its request. Nothing when the message has none, or an empty one.
    std::optional<SavedObject> save(std::int64_t stream, const StreamMessage& message, std::optional<std::string> url,
                                    const std::stop_token& stop);

private:
    std::string freePath(const std::string& name);

    std::string folder_;
    Existing existing_;
    std::unordered_set<std::string> used_;                      ///< by this run
    std::unordered_map<std::string, std::int64_t> nextNumber_;  ///< of a name that was used already
};

/// Saves the bodies of the requests and replies on some streams, stream by stream in the order given. `told` hears of each, and
/// ends it by giving false. False when there are more of these than `mostMessages`.
bool saveObjects(const Session& session, const std::vector<std::int64_t>& streams, ObjectFolder& folder, const std::stop_token& stop,
                 const std::function<bool(const SavedObject&)>& told, std::int64_t mostMessages = std::numeric_limits<std::int64_t>::max());

}  // namespace sealscope
