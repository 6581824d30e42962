// One lock-free flag, set by the signal handler and by the thread that reads standard input; see the header.
#include "apps/shared/stop_request.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <thread>

namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores it");

extern "C" void RequestStop(int) {
    g_stop = true;
}

}  // namespace

void StopOnSignals() {
    std::signal(SIGINT, RequestStop);
    std::signal(SIGTERM, RequestStop);
}

void StopWhenInputEnds() {
    // Detached: the thread may still wait for input when the process ends for another reason.
    std::thread([] {
        while (std::getchar() != EOF) {
        }
        g_stop = true;
    }).detach();
}

bool StopRequested() {
    return g_stop;
}
