#include "platform/preload/waits.h"

#include <poll.h>
#include <signal.h>
#include <time.h>

#include <cerrno>

namespace preload {
namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

/// Synchronous ones never interrupt a wait.
bool InterruptsWaits(int signal) {
    return signal != SIGSEGV && signal != SIGBUS && signal != SIGFPE && signal != SIGILL;
}

/// A blocking call on a socket goes on behind a handler that was installed with SA_RESTART, but poll never
/// does. Which signal it was, nobody tells; so a call goes on if every handler of the program wants that.
bool HandlersRestartCalls() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action;
        if (!InterruptsWaits(signal) || sigaction(signal, nullptr, &action) != 0) continue;
        const bool handled = (action.sa_flags & SA_SIGINFO) != 0 ||
                             (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
        if (handled && (action.sa_flags & SA_RESTART) == 0) return false;
    }
    return true;
}

std::int64_t Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

}  // namespace

int WaitFor(int descriptor, short events, std::int64_t timeout) {
    const std::int64_t deadline = timeout > 0 ? Now() + timeout : 0;
    for (;;) {
        pollfd entry = {descriptor, events, 0};
        timespec left = {};
        if (timeout > 0) {
            const std::int64_t rest = deadline - Now();
            if (rest <= 0) return EAGAIN;
            left = {static_cast<time_t>(rest / kNanosPerSecond), static_cast<long>(rest % kNanosPerSecond)};
        }
        const int ready = ppoll(&entry, 1, timeout > 0 ? &left : nullptr, nullptr);
        if (ready > 0) return 0;
        // The kernel begins no call again that has a time limit.
        if (ready < 0 && (errno != EINTR || timeout > 0 || !HandlersRestartCalls())) return errno;
    }
}

}  // namespace preload
