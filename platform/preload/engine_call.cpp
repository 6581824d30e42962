#include "platform/preload/engine_call.h"

#include <pthread.h>

namespace preload {
namespace {

constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS};
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

bool HasHandler(int signal) {
    struct sigaction action;
    return sigaction(signal, nullptr, &action) == 0 &&
           ((action.sa_flags & SA_SIGINFO) != 0 || action.sa_handler != SIG_DFL);
}

void HoldBack(Signals signals, sigset_t* before) {
    sigset_t held;
    sigfillset(&held);
    for (const int fault : kFaultSignals)
        sigdelset(&held, fault);
    for (const int ending : kEndingSignals) {
        if (signals == Signals::Brief || !HasHandler(ending)) sigdelset(&held, ending);
    }
    pthread_sigmask(SIG_BLOCK, &held, before);
}

}  // namespace

__thread ThreadState ThisThread __attribute__((tls_model("initial-exec")));

EngineCall::EngineCall(int descriptor, Signals signals) : errno_(errno) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_);
    HoldBack(signals, &signals_);
    ++ThisThread.inside;
    ThisThread.descriptor = descriptor;
    ThisThread.kernelError = 0;
}

EngineCall::~EngineCall() {
    ThisThread.descriptor = -1;
    --ThisThread.inside;
    pthread_sigmask(SIG_SETMASK, &signals_, nullptr);
    pthread_setcancelstate(cancelState_, nullptr);
    errno = errno_;
}

void BlockProgramsSignals(sigset_t* before) {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : kFaultSignals)
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, before);
}

}  // namespace preload
