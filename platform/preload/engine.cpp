#include "platform/preload/engine.h"

#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/preload/descriptor_table.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/library_images.h"

namespace preload {
namespace {

constexpr int kNotRunStatus = 125;
constexpr const char* kBridgeFile = "libqxrunbridge.so";

enum class Phase { NotStarted, Running, GivenUp, Ended };

pthread_mutex_t StartLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<Phase> ThePhase{Phase::NotStarted};
const Bridge* Loaded = nullptr;  // under StartLock until the phase is Running
bool IsForkedCopy = false;       // the engine's memory is that of a parent whose threads are not here

/// The file beside this library.
const char* PathOf(const char* file, char (&path)[PATH_MAX]) {
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(&PathOf), &info) == 0) return file;
    const char* const slash = strrchr(info.dli_fname, '/');
    const int folder = slash != nullptr ? static_cast<int>(slash - info.dli_fname) + 1 : 0;
    snprintf(path, sizeof(path), "%.*s%s", folder, info.dli_fname, file);
    return path;
}

/// Runs before the static objects of the engine are destroyed: what is called later is the kernel's alone.
void OnExit() {
    ThePhase.store(Phase::Ended);
    // These objects would wait for threads that only the parent has.
    if (IsForkedCopy) RestoreLibraryImages();
}

const Bridge* LoadBridge() {
    char path[PATH_MAX];
    void* const library = dlopen(PathOf(kBridgeFile, path), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return nullptr;
    const auto function = reinterpret_cast<BridgeFunction>(dlsym(library, kBridgeName));
    if (function == nullptr) return nullptr;
    constexpr std::size_t kMostLibraries = 8;
    const void* addresses[kMostLibraries];
    SaveLibraryImages(addresses, function()->load(addresses, kMostLibraries));
    atexit(OnExit);
    return function();
}

/// StartLock is held.
bool StartLocked() {
    const EngineCall call(-1, Signals::HeldBack);
    if (IsForkedCopy) RestoreLibraryImages();
    IsForkedCopy = false;
    if (Loaded == nullptr) Loaded = LoadBridge();
    return Loaded != nullptr && Loaded->start() == 0;
}

void BeforeFork() {
    pthread_mutex_lock(&StartLock);
}

void InParent() {
    pthread_mutex_unlock(&StartLock);
}

void InChild() {
    if (ThePhase.load() == Phase::Running) {
        IsForkedCopy = true;
        ThePhase.store(Phase::NotStarted);
    }
    ForgetAfterFork();
    pthread_mutex_unlock(&StartLock);
}

__attribute__((constructor)) void WatchForks() {
    pthread_atfork(BeforeFork, InParent, InChild);
}

}  // namespace

const Bridge* RunningBridge() {
    return ThePhase.load(std::memory_order_acquire) == Phase::Running ? Loaded : nullptr;
}

const Bridge* TheBridge() {
    if (const Bridge* running = RunningBridge()) return running;
    if (ThePhase.load() != Phase::NotStarted) return nullptr;
    const int before = errno;
    pthread_mutex_lock(&StartLock);
    bool failed = false;
    if (ThePhase.load() == Phase::NotStarted) {
        failed = !StartLocked();
        if (!failed) ThePhase.store(Phase::Running);
    }
    pthread_mutex_unlock(&StartLock);
    if (failed) GiveUpEngine();
    errno = before;
    return RunningBridge();
}

void GiveUpEngine() {
    const char* const policy = getenv("QX_RUN_WITHOUT_LAYER");
    const bool mayRun = policy == nullptr || strcmp(policy, "refuse") != 0;
    if (ThePhase.exchange(Phase::GivenUp) != Phase::GivenUp) {
        dprintf(STDERR_FILENO, "qxrun: the layer can't start in process %d, which %s\n",
                static_cast<int>(getpid()), mayRun ? "runs without it" : "ends");
    }
    if (!mayRun) _exit(kNotRunStatus);
}

void CloseWinsockSocket(WinsockSocket socket) {
    const Bridge* const bridge = RunningBridge();
    if (bridge == nullptr) return;
    const EngineCall call(-1, Signals::HeldBack);
    bridge->close(socket);
}

}  // namespace preload
