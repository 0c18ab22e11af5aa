// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"

namespace sealscope {

/// A connection may resume a session that another one began, and its secret is that one's. Whoever could not open a stream asks here:
/// where its secret may be such a one, the probes of full reach are shown every protected stream of the session, once, and remember
/// what they find. True when one of them has a secret for the stream now, and had none before. Any thread may ask.
bool foundResumedSession(const Session& session, const TCPStream& stream);
/// Whether other connections may share the secret of a stream that opens.
bool mayBeResumed(const SessionPlugIns& plugIns, const TCPStream& stream);
/// The same, for those who ask before they look into the stream.
inline void findResumedSession(const Session& session, const TCPStream& stream) { static_cast<void>(foundResumedSession(session, stream)); }

}  // namespace sealscope
