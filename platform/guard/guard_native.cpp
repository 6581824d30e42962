// The guard natively: a jump buffer per guarded call, linked through thread-local memory. Faults come as
// signals, RaiseException jumps directly.
//
// The signal handlers are installed at the first guarded call and stay. Without a guard on the faulting
// thread they hand the signal to whoever had it before. A guarded call that does not fault makes no system
// call and takes no lock.
#include <pthread.h>
#include <signal.h>
#include <ucontext.h>
#include <windows.h>

#include <atomic>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/guard/call_depth.h"
#include "platform/guard/guarded_call.h"
#include "platform/guard/thread_guard.h"

namespace platform {

__thread CallDepth ThisCallDepth;

namespace {

struct GuardFrame {
    sigjmp_buf buffer;
    GuardFrame* previous;
    volatile DWORD code;
};

constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr std::size_t kSignalStackSize = 64 * 1024;
constexpr std::uintptr_t kOverflowReach = 256 * 1024;

struct sigaction PreviousActions[NSIG];

struct ThreadGuard {
    GuardFrame* innermost;
    bool prepared;
    void* signalStack;      // the alternate one, when the guard made it
    std::uintptr_t lowest;  // address of the ordinary stack
};
__thread ThreadGuard ThisThreadGuard __attribute__((tls_model("initial-exec")));

[[noreturn]] void JumpToGuard(DWORD code) {
    GuardFrame* frame = ThisThreadGuard.innermost;
    frame->code = code;
    siglongjmp(frame->buffer, 1);
}

DWORD ToExceptionCode(int signal, const siginfo_t* info) {
    switch (signal) {
        case SIGFPE:
            if (info->si_code == FPE_INTDIV) return EXCEPTION_INT_DIVIDE_BY_ZERO;
            if (info->si_code == FPE_INTOVF) return EXCEPTION_INT_OVERFLOW;
            return info->si_code == FPE_FLTDIV ? EXCEPTION_FLT_DIVIDE_BY_ZERO
                                               : EXCEPTION_FLT_INVALID_OPERATION;
        case SIGILL:
            return EXCEPTION_ILLEGAL_INSTRUCTION;
        case SIGBUS:
            return EXCEPTION_IN_PAGE_ERROR;
        default:
            break;
    }
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    const std::uintptr_t lowest = ThisThreadGuard.lowest;
    const bool besideStackEnd =
        lowest != 0 && address < lowest + kOverflowReach && address + kOverflowReach > lowest;
    return besideStackEnd ? EXCEPTION_STACK_OVERFLOW : EXCEPTION_ACCESS_VIOLATION;
}

/// As if this handler did not exist.
void PassOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction& previous = PreviousActions[signal];
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(signal, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
    } else {
        // The faulting instruction is executed once more and ends the process with the right status.
        sigaction(signal, &previous, nullptr);
    }
}

void OnFault(int signal, siginfo_t* info, void* context) {
    if (ThisThreadGuard.innermost == nullptr) {
        PassOn(signal, info, context);
        return;
    }
    // What was blocked for the handler stays blocked otherwise, since the jump skips the kernel's clean-up.
    pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    JumpToGuard(ToExceptionCode(signal, info));
}

void InstallHandlers() {
    for (const int signal : kFaultSignals) {
        struct sigaction action = {};
        action.sa_sigaction = OnFault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        sigaction(signal, &action, &PreviousActions[signal]);
    }
}

/// Everything a thread needs before its first guarded call.
void PrepareThread() {
    static std::once_flag installed;
    std::call_once(installed, InstallHandlers);
    ThisThreadGuard.prepared = true;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        void* lowest = nullptr;
        std::size_t size = 0;
        pthread_attr_getstack(&attributes, &lowest, &size);
        ThisThreadGuard.lowest = reinterpret_cast<std::uintptr_t>(lowest);
        pthread_attr_destroy(&attributes);
    }
    stack_t present = {};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
    stack_t mine = {};
    mine.ss_sp = std::malloc(kSignalStackSize);
    mine.ss_size = kSignalStackSize;
    if (mine.ss_sp == nullptr) return;
    if (sigaltstack(&mine, nullptr) != 0) {
        std::free(mine.ss_sp);
        return;
    }
    ThisThreadGuard.signalStack = mine.ss_sp;
}

}  // namespace

void DropGuards() noexcept {
    ThisThreadGuard.innermost = nullptr;
}

void ReleaseSignalStack() noexcept {
    ThisThreadGuard.prepared = false;
    if (ThisThreadGuard.signalStack == nullptr) return;
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    std::free(ThisThreadGuard.signalStack);
    ThisThreadGuard.signalStack = nullptr;
}

}  // namespace platform

int GuardThunk(void (*function)(void*), void* argument, DWORD* code) {
    platform::ThreadGuard& guard = platform::ThisThreadGuard;
    if (!guard.prepared) platform::PrepareThread();
    platform::GuardFrame frame;
    frame.previous = guard.innermost;
    frame.code = 0;
    const platform::CallDepth depth = platform::CurrentCallDepth();
    if (sigsetjmp(frame.buffer, 0) == 0) {
        guard.innermost = &frame;
        function(argument);
        guard.innermost = frame.previous;
        return 0;
    }
    platform::ThisThreadGuard.innermost = frame.previous;
    platform::CurrentCallDepth() = depth;
    *code = frame.code;
    return 1;
}

void RestoreStackGuard() {}

void RaiseException(DWORD code, DWORD, DWORD, const ULONG_PTR*) {
    if (platform::ThisThreadGuard.innermost != nullptr) platform::JumpToGuard(code);
    std::fprintf(stderr, "Unhandled exception 0x%08X\n", static_cast<unsigned>(code));
    std::abort();
}
