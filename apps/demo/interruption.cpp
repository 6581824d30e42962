// A thread that waits for the signals, so that nothing has to be done in a signal handler.
#include "apps/demo/interruption.h"

#include "apps/demo/child_process.h"

#include <pthread.h>
#include <signal.h>

Interruption::Interruption() {
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1})
        sigaddset(&signals_, signal);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    waiter_ = std::thread([this] { WaitForSignals(); });
}

Interruption::~Interruption() {
    ending_ = true;
    pthread_kill(waiter_.native_handle(), SIGUSR1);
    waiter_.join();
}

void Interruption::WaitForSignals() {
    while (!ending_) {
        int signal = 0;
        if (sigwait(&signals_, &signal) == 0 && signal != SIGUSR1) ChildProcess::Interrupt();
    }
}
