// The signal, where it may stop a thread, and the rounds of asking.
#include "platform/kernel/thread_hold.h"

#include <dirent.h>
#include <link.h>
#include <signal.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "platform/guard/call_depth.h"
#include "platform/kernel/process_exit.h"

namespace platform {

namespace {

constexpr int kAskingPatienceMilliseconds = 1000;
constexpr int kHoldingPatienceMilliseconds = 10'000;
constexpr int kDeafRounds = 100;
constexpr long kNanosecondsPerMillisecond = 1'000'000;

enum class Answer { kNone, kNotHere, kHeld };

/// One thread that was asked. Never freed, since its thread reads it for ever.
struct AskedThread {
    pid_t id = 0;
    std::atomic<Answer> answer{Answer::kNotHere};
    int deafRounds = 0;  // in a row; the asking thread's
    AskedThread* next = nullptr;
};
std::atomic<AskedThread*> Asked{nullptr};

struct CodeRange {
    std::uintptr_t begin;
    std::uintptr_t end;
};
std::vector<CodeRange>* SystemCode = nullptr;  // complete before the first thread is asked

int HoldSignal() {
    return SIGRTMAX;
}

std::int64_t MillisecondsNow() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / kNanosecondsPerMillisecond;
}

AskedThread* FindAsked(pid_t id) {
    AskedThread* thread = Asked.load();
    while (thread != nullptr && thread->id != id)
        thread = thread->next;
    return thread;
}

// ---- In the thread that was asked, on any of its stacks: no locks, no memory

struct Place {
    std::uintptr_t code;
    bool isBlocked;  // the signal has interrupted a wait in the kernel
};

/// A processor that is not known here gives no code: such threads stop anywhere.
Place PlaceOf(const ucontext_t& context) {
#if defined(__x86_64__)
    const auto code = static_cast<std::uintptr_t>(context.uc_mcontext.gregs[REG_RIP]);
    constexpr unsigned char kSystemCall[] = {0x0f, 0x05};
    const bool isInterrupted = context.uc_mcontext.gregs[REG_RAX] == -EINTR;
#elif defined(__aarch64__)
    const auto code = static_cast<std::uintptr_t>(context.uc_mcontext.pc);
    constexpr unsigned char kSystemCall[] = {0x01, 0x00, 0x00, 0xd4};
    const bool isInterrupted = static_cast<std::int64_t>(context.uc_mcontext.regs[0]) == -EINTR;
#else
    static_cast<void>(context);
    const std::uintptr_t code = 0;
    constexpr unsigned char kSystemCall[] = {0};
    const bool isInterrupted = false;
#endif
    return {code, isInterrupted && std::memcmp(reinterpret_cast<const char*>(code) - sizeof(kSystemCall),
                                               kSystemCall, sizeof(kSystemCall)) == 0};
}

bool MayStopAt(const Place& place) {
    if (place.isBlocked) return true;
    if (CurrentCallDepth().calls > 0) return false;
    for (const CodeRange& range : *SystemCode)
        if (place.code >= range.begin && place.code < range.end) return false;
    return true;
}

void OnAsked(int, siginfo_t*, void* context) {
    const int error = errno;
    AskedThread* const self = FindAsked(static_cast<pid_t>(syscall(SYS_gettid)));
    if (self != nullptr) {
        if (MayStopAt(PlaceOf(*static_cast<const ucontext_t*>(context)))) {
            self->answer.store(Answer::kHeld);
            HoldCurrentThread();
        }
        self->answer.store(Answer::kNotHere);
    }
    errno = error;
}

// ---- In the thread that asks

/// Locks may be held in the C library, the loader, a sanitizer's runtime: in all that the system brings.
int AddSystemCode(dl_phdr_info* info, std::size_t, void*) {
    const char* const name = info->dlpi_name;
    if (std::strncmp(name, "/lib", 4) != 0 && std::strncmp(name, "/usr/lib", 8) != 0) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0) continue;
        const std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
        SystemCode->push_back({begin, begin + header.p_memsz});
    }
    return 0;
}

enum class Hearing { kHears, kBlocks, kGone };

Hearing HearingOf(pid_t id) {
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/self/task/%d/status", static_cast<int>(id));
    FILE* const status = std::fopen(path, "re");
    if (status == nullptr) return Hearing::kGone;
    Hearing hearing = Hearing::kHears;
    char line[256];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        unsigned long long blocked = 0;
        if (std::sscanf(line, "SigBlk: %llx", &blocked) != 1) continue;
        if ((blocked >> (HoldSignal() - 1) & 1) != 0) hearing = Hearing::kBlocks;
        break;
    }
    std::fclose(status);
    return hearing;
}

/// Asks the thread unless it has still to answer. True when there is nothing more to wait for.
bool AskThread(pid_t id) {
    AskedThread* thread = FindAsked(id);
    if (thread == nullptr) {
        thread = new AskedThread;
        thread->id = id;
        thread->next = Asked.load();
        Asked.store(thread);
    }
    if (thread->answer.load() == Answer::kHeld) return true;
    const Hearing hearing = HearingOf(id);
    if (hearing == Hearing::kGone) return true;
    // A thread that begins blocks everything for a moment.
    thread->deafRounds = hearing == Hearing::kBlocks ? thread->deafRounds + 1 : 0;
    if (hearing == Hearing::kBlocks) return thread->deafRounds > kDeafRounds;
    Answer idle = Answer::kNotHere;
    if (thread->answer.compare_exchange_strong(idle, Answer::kNone))
        syscall(SYS_tgkill, getpid(), id, HoldSignal());
    return false;
}

/// One round over all threads that there are by now. True when all others are held or deaf.
bool AskAllThreads() {
    DIR* const tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return true;
    bool done = true;
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    while (const dirent* const entry = readdir(tasks)) {
        const auto id = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (id > 0 && id != self && !AskThread(id)) done = false;
    }
    closedir(tasks);
    return done;
}

void SleepMicroseconds(long microseconds) {
    const timespec duration = {0, microseconds * 1000};
    nanosleep(&duration, nullptr);
}

}  // namespace

void HoldOtherThreads() noexcept {
    try {
        SystemCode = new std::vector<CodeRange>;
        dl_iterate_phdr(AddSystemCode, nullptr);
        struct sigaction action = {};
        action.sa_sigaction = OnAsked;
        // Without SA_RESTART: an interrupted wait shows in its result. Not blocked while it is handled: a
        // thread that is answering must not look as if it blocked the signal.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(HoldSignal(), &action, nullptr);
        const std::int64_t giveUp = MillisecondsNow() + kAskingPatienceMilliseconds;
        while (!AskAllThreads() && MillisecondsNow() < giveUp)
            SleepMicroseconds(100);
    } catch (const std::bad_alloc&) {
        // The others run on, which is what happens to those that cannot be held, too.
    }
}

void HoldCurrentThread() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    const std::int64_t giveUp = MillisecondsNow() + kHoldingPatienceMilliseconds;
    while (MillisecondsNow() < giveUp) {
        const timespec duration = {1, 0};
        nanosleep(&duration, nullptr);
    }
    AbandonProcessExit();
}

void LetThreadBeHeld() noexcept {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, HoldSignal());
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace platform
