// Threads of the layer's own, and programs that this one starts.
#include <alloca.h>
#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/preload/engine_call.h"
#include "platform/preload/library_images.h"
#include "platform/preload/real_calls.h"
#include "platform/preload/sockets.h"

using preload::Real;

namespace {

// ---- Threads

struct Beginning {
    void* (*function)(void*);
    void* argument;
};

/// A thread that the layer makes is inside for ever.
void* BeginInside(void* argument) {
    const Beginning beginning = *static_cast<Beginning*>(argument);
    free(argument);
    preload::ThisThread.inside = 1;
    preload::ThisThread.descriptor = -1;
    return beginning.function(beginning.argument);
}

int CreateInside(pthread_t* thread, const pthread_attr_t* attributes, const Beginning& beginning) {
    auto* const copy = static_cast<Beginning*>(malloc(sizeof(Beginning)));
    if (copy == nullptr) return EAGAIN;
    *copy = beginning;
    sigset_t before;
    preload::BlockProgramsSignals(&before);
    const int error = Real().pthread_create(thread, attributes, BeginInside, copy);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) free(copy);
    return error;
}

// ---- Ends of threads

/// A destructor of a thread-local object of the layer's.
struct Ending {
    void (*function)(void*);
    void* object;
    unsigned generation;
};

/// In a child of fork the object is another one since, in the same place, with a destructor of its own.
void RunEnding(void* argument) {
    const Ending ending = *static_cast<Ending*>(argument);
    free(argument);
    if (ending.generation == preload::ImageGeneration()) ending.function(ending.object);
}

// ---- Programs that are started

constexpr const char* kPreload = "LD_PRELOAD=";
constexpr const char* kKept[] = {
    "QX_MACHINE=", "QX_RUN_WITHOUT_LAYER=", "QX_CLOCK_SCALE=", "QX_RUN_LOOPBACK_AS="};
constexpr std::size_t kAdded = 1 + sizeof(kKept) / sizeof(kKept[0]);

bool Begins(const char* text, const char* with) {
    return strncmp(text, with, strlen(with)) == 0;
}

const char* Find(char* const* environment, const char* name) {
    for (; environment != nullptr && *environment != nullptr; ++environment) {
        if (Begins(*environment, name)) return *environment;
    }
    return nullptr;
}

std::size_t CountOf(char* const* environment) {
    std::size_t count = 0;
    while (environment != nullptr && environment[count] != nullptr)
        ++count;
    return count;
}

/// What this process was started with, kept before the program may change its environment.
struct Inherited {
    char preload[PATH_MAX + 16];
    char* kept[kAdded - 1];
};
Inherited TheInherited;

__attribute__((constructor)) void KeepInherited() {
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(&KeepInherited), &info) == 0) return;
    strcpy(TheInherited.preload, kPreload);
    strncat(TheInherited.preload, info.dli_fname, PATH_MAX);
    for (std::size_t i = 0; i < kAdded - 1; ++i) {
        const char* const entry = Find(environ, kKept[i]);
        if (entry != nullptr) TheInherited.kept[i] = strdup(entry);
    }
}

/// Writes the environment with what a program needs to be layered like this one; `to` has room for kAdded
/// more, and a null.
void KeepLayered(char* const* environment, char** to) {
    const char* const preload = Find(environment, kPreload);
    const bool has =
        preload != nullptr && strstr(preload, TheInherited.preload + strlen(kPreload)) != nullptr;
    for (; environment != nullptr && *environment != nullptr; ++environment) {
        if (has || !Begins(*environment, kPreload)) *to++ = *environment;
    }
    if (!has) *to++ = TheInherited.preload;
    for (std::size_t i = 0; i < kAdded - 1; ++i) {
        if (TheInherited.kept[i] != nullptr && Find(environment, kKept[i]) == nullptr)
            *to++ = TheInherited.kept[i];
    }
    *to = nullptr;
}

}  // namespace

// In a child of vfork the table would be the parent's.
QX_REPLACES pid_t vfork() noexcept {
    return fork();
}

QX_REPLACES int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                               void* argument) noexcept {
    return preload::IsInside() ? CreateInside(thread, attributes, {function, argument})
                               : Real().pthread_create(thread, attributes, function, argument);
}

extern "C" int __cxa_thread_atexit_impl(void (*function)(void*), void* object, void* library);

QX_REPLACES int __cxa_thread_atexit_impl(void (*function)(void*), void* object, void* library) {
    static const auto real =
        reinterpret_cast<decltype(&__cxa_thread_atexit_impl)>(dlsym(RTLD_NEXT, "__cxa_thread_atexit_impl"));
    auto* const ending = preload::IsInside() ? static_cast<Ending*>(malloc(sizeof(Ending))) : nullptr;
    if (ending == nullptr) return real(function, object, library);
    *ending = {function, object, preload::ImageGeneration()};
    return real(RunEnding, ending, library);
}

// On the stack, since a child of fork calls these: it has whatever heap the fork left.
#define QX_LAYERED_ENVIRONMENT(from, name)                                                         \
    auto** const name = static_cast<char**>(alloca((CountOf(from) + kAdded + 1) * sizeof(char*))); \
    KeepLayered(from, name)

QX_REPLACES int execve(const char* path, char* const arguments[], char* const environment[]) noexcept {
    QX_LAYERED_ENVIRONMENT(environment, layered);
    return Real().execve(path, arguments, layered);
}

QX_REPLACES int execvpe(const char* file, char* const arguments[], char* const environment[]) noexcept {
    QX_LAYERED_ENVIRONMENT(environment, layered);
    return Real().execvpe(file, arguments, layered);
}

QX_REPLACES int execv(const char* path, char* const arguments[]) noexcept {
    return execve(path, arguments, environ);
}

QX_REPLACES int execvp(const char* file, char* const arguments[]) noexcept {
    return execvpe(file, arguments, environ);
}

QX_REPLACES int posix_spawn(pid_t* id, const char* path, const posix_spawn_file_actions_t* actions,
                            const posix_spawnattr_t* attributes, char* const arguments[],
                            char* const environment[]) {
    QX_LAYERED_ENVIRONMENT(environment, layered);
    return Real().posix_spawn(id, path, actions, attributes, arguments, layered);
}

QX_REPLACES int posix_spawnp(pid_t* id, const char* file, const posix_spawn_file_actions_t* actions,
                             const posix_spawnattr_t* attributes, char* const arguments[],
                             char* const environment[]) {
    QX_LAYERED_ENVIRONMENT(environment, layered);
    return Real().posix_spawnp(id, file, actions, attributes, arguments, layered);
}
