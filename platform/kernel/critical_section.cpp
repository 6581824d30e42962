// Critical sections: a recursive lock of the native system inside Windows' structure, so that sanitizers see
// it. Misuse that corrupts a process on Windows (entering what was never initialised, leaving what is not
// owned) ends the process here, with a message.
#include <pthread.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>

#include "platform/kernel/critical_section.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/process_exit.h"

namespace platform {

namespace {

constexpr ULONG_PTR kInitialized = 0x53435851;
constexpr time_t kExitPatienceSeconds = 1;

struct Section {
    ULONG_PTR state;  // kInitialized between initialisation and deletion
    pthread_mutex_t mutex;
};
static_assert(sizeof(Section) <= sizeof(CRITICAL_SECTION) && alignof(Section) <= alignof(CRITICAL_SECTION),
              "a section fits into Windows' structure");

std::atomic<int> Sections{0};

[[noreturn]] void Misuse(const char* what) {
    std::fprintf(stderr, "critical section: %s\n", what);
    std::abort();
}

inline Section& From(CRITICAL_SECTION* section) {
    Section& result = *reinterpret_cast<Section*>(section);
    if (__builtin_expect(result.state != kInitialized, 0)) Misuse("used without being initialised");
    return result;
}

void Initialize(CRITICAL_SECTION* section) {
    Section* result = new (section) Section;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&result->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    result->state = kInitialized;
    Sections.fetch_add(1, std::memory_order_relaxed);
}

/// At process end the owner may be a frozen thread. Windows then ends the process at once.
void EnterAtExit(Section& section) {
    timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kExitPatienceSeconds;
    if (pthread_mutex_timedlock(&section.mutex, &until) != 0) AbandonProcessExit();
}

}  // namespace

int CountCriticalSections() noexcept {
    return Sections.load(std::memory_order_relaxed);
}

}  // namespace platform

using platform::From;
using platform::PlatformCall;
using platform::Section;

void InitializeCriticalSection(LPCRITICAL_SECTION section) {
    platform::Initialize(section);
}

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD) {
    PlatformCall call("InitializeCriticalSectionAndSpinCount", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return FALSE;
    platform::Initialize(section);
    return TRUE;
}

void EnterCriticalSection(LPCRITICAL_SECTION section) {
    Section& target = From(section);
    if (__builtin_expect(platform::IsExitingThread(), 0)) {
        platform::EnterAtExit(target);
        return;
    }
    pthread_mutex_lock(&target.mutex);
}

BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section) {
    return pthread_mutex_trylock(&From(section).mutex) == 0 ? TRUE : FALSE;
}

void LeaveCriticalSection(LPCRITICAL_SECTION section) {
    if (pthread_mutex_unlock(&From(section).mutex) != 0)
        platform::Misuse("left by a thread that is not inside");
}

void DeleteCriticalSection(LPCRITICAL_SECTION section) {
    Section& target = From(section);
    pthread_mutex_destroy(&target.mutex);
    target.state = 0;
    platform::Sections.fetch_sub(1, std::memory_order_relaxed);
}
