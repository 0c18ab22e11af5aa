// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"

#include <csignal>
#include <initializer_list>

namespace sealscope::cli {

namespace {

volatile std::sig_atomic_t interrupted = 0;
void (*whenInterrupted)() = nullptr;

extern "C" void onSignal(int)
{
    interrupted = 1;
    if (whenInterrupted) whenInterrupted();
}

}  // namespace

void catchInterrupts(void (*onInterrupt)())
{
    whenInterrupted = onInterrupt;
    interrupted = 0;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);  // as under nohup
    }
}

bool isInterrupted() { return interrupted != 0; }

}  // namespace sealscope::cli
