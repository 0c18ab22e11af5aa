// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stop_token>

namespace sealscope::cli {

/// From here on the first Ctrl-C (or SIGTERM, SIGHUP) only asks the work to end, so that what was found is kept; the second ends
/// the program. `onInterrupt` is called in the signal handler and must be safe there.
void catchInterrupts(void (*onInterrupt)());
/// The same for work that reads files: one that waits for standard input finds its end.
void catchInterrupts();
/// Names an empty folder that is to go when the second one ends the program, or null. The name is not copied.
void removeWhenEnded(const char* folder);
/// Whether the user has asked since then.
bool isInterrupted();
/// The same, for work that knows nothing of a command line.
std::stop_token interruption();
/// Whether the user has asked at any time.
bool wasInterrupted();

}  // namespace sealscope::cli
