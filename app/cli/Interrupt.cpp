// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>
#include <vector>

namespace sealscope::cli {

namespace {

volatile std::sig_atomic_t everInterrupted = 0;
// Stopping is a store while no callback is registered with it, and none ever is. Never freed: a handler may be about to use it.
std::atomic<std::stop_source*> current = new std::stop_source;
void (*whenInterrupted)() = nullptr;

int nothing = -1;  // /dev/null

void endStandardInput()
{
    // The read that the signal has broken off goes on with this.
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
}

std::atomic<const char*> emptyFolder = nullptr;

extern "C" void onSignal(int number)
{
    if (isInterrupted()) {
        if (const char* const folder = emptyFolder) rmdir(folder);
        signal(number, SIG_DFL);
        raise(number);
        return;
    }
    current.load()->request_stop();
    everInterrupted = 1;
    if (whenInterrupted) whenInterrupted();
}

}  // namespace

void catchInterrupts(void (*onInterrupt)())
{
    whenInterrupted = onInterrupt;
    if (isInterrupted()) {
        static auto& former = *new std::vector<std::stop_source*>;
        former.push_back(current);
        current = new std::stop_source;
    }
    struct sigaction action = {};
    action.sa_handler = onSignal;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);  // as under nohup
    }
}

void catchInterrupts()
{
    if (nothing < 0) nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    catchInterrupts(endStandardInput);
}

void removeWhenEnded(const char* folder) { emptyFolder = folder; }

bool isInterrupted() { return current.load(std::memory_order_relaxed)->stop_requested(); }
std::stop_token interruption() { return current.load()->get_token(); }
bool wasInterrupted() { return everInterrupted != 0; }

}  // namespace sealscope::cli
