// The table of loaded modules, and the loader lock.
#include "platform/kernel/modules.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/process_exit.h"
#include "platform/kernel/process_names.h"
#include "platform/kernel/text.h"

namespace platform {

namespace {

using EntryPoint = BOOL(WINAPI*)(HINSTANCE module, DWORD reason, LPVOID reserved);

/// One loaded module; its address is its HMODULE.
struct Module {
    std::string path;
    void* library = nullptr;  // null for a module that is only named
    EntryPoint entryPoint = nullptr;
    int references = 0;
    bool pinned = false;
    bool wantsThreadCalls = true;
    bool initialized = false;
};

/// The loader lock. Not a plain mutex: entry points take locks inside it that are elsewhere held around
/// loading, which Windows' loader lock suffers from, too, and which would only drown a lock-order checker's
/// findings.
class LoaderLock {
  public:
    void lock() {
        std::unique_lock<std::mutex> holder(mutex_);
        released_.wait(holder, [this] { return depth_ == 0 || IsMine(); });
        Take();
    }

    bool try_lock_for(std::chrono::milliseconds patience) {
        std::unique_lock<std::mutex> holder(mutex_);
        if (!released_.wait_for(holder, patience, [this] { return depth_ == 0 || IsMine(); })) return false;
        Take();
        return true;
    }

    void unlock() {
        const std::lock_guard<std::mutex> holder(mutex_);
        if (--depth_ == 0) released_.notify_one();
    }

  private:
    bool IsMine() const { return owner_ == std::this_thread::get_id(); }
    void Take() {
        owner_ = std::this_thread::get_id();
        ++depth_;
    }

    std::mutex mutex_;
    std::condition_variable released_;
    std::thread::id owner_;
    int depth_ = 0;
};

struct Loader {
    LoaderLock mutex;  // guards everything here
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<std::unique_ptr<Module>> named;  // modules that are not there, asked for
    Module executable;
};

using LoaderHolder = std::lock_guard<LoaderLock>;

// Set while libraries are being initialised, before any thread asks.
ProcessNames (*NamesSource)() = nullptr;

ProcessNames NamesOfProcess() {
    return NamesSource != nullptr ? NamesSource() : ProcessNames{};
}

Loader& TheLoader() {
    static Loader* const loader = [] {
        auto* made = new Loader;
        char path[PATH_MAX];
        const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
        made->executable.path.assign(path, length > 0 ? static_cast<std::size_t>(length) : 0);
        made->executable.library = dlopen(nullptr, RTLD_NOW);
        return made;
    }();
    return *loader;
}

HMODULE ToHandle(Module* module) {
    return reinterpret_cast<HMODULE>(module);
}

/// The module of a handle; null's is the executable's. Null when it is not loaded.
Module* FromHandle(Loader& loader, HMODULE handle) {
    Module* module = reinterpret_cast<Module*>(handle);
    if (module == nullptr || module == &loader.executable) return &loader.executable;
    for (const auto* list : {&loader.modules, &loader.named}) {
        for (const auto& loaded : *list)
            if (loaded.get() == module) return module;
    }
    return nullptr;
}

BOOL CallEntryPoint(Module& module, DWORD reason, LPVOID reserved) {
    if (module.entryPoint == nullptr) return TRUE;
    const ProviderBoundary boundary;
    return module.entryPoint(ToHandle(&module), reason, reserved);
}

/// Takes the module out of the table and unloads it.
void Unload(Loader& loader, Module* module) {
    const auto found = std::find_if(loader.modules.begin(), loader.modules.end(),
                                    [module](const auto& loaded) { return loaded.get() == module; });
    const std::unique_ptr<Module> owned = std::move(*found);
    loader.modules.erase(found);
    const ProviderBoundary boundary;
    dlclose(owned->library);
}

std::string PathOfLibrary(void* library, const std::string& asked) {
    link_map* map = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 || map->l_name == nullptr || *map->l_name == 0)
        return asked;
    char resolved[PATH_MAX];
    return realpath(map->l_name, resolved) != nullptr ? resolved : map->l_name;
}

/// Maps the library; constructors of its static objects run.
void* OpenLibrary(const std::string& path) {
    const ProviderBoundary boundary;
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

void SetProcessNamesSource(ProcessNames (*source)()) {
    NamesSource = source;
}

HMODULE LoadModule(const std::string& path) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    void* library = OpenLibrary(path);
    if (library == nullptr) return Fail<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
    for (const auto& loaded : loader.modules) {
        if (loaded->library != library) continue;
        dlclose(library);
        ++loaded->references;
        return ToHandle(loaded.get());
    }
    loader.modules.push_back(std::make_unique<Module>());
    Module* module = loader.modules.back().get();
    module->path = PathOfLibrary(library, path);
    module->library = library;
    module->references = 1;
    module->entryPoint = reinterpret_cast<EntryPoint>(dlsym(library, "DllMain"));
    if (CallEntryPoint(*module, DLL_PROCESS_ATTACH, nullptr) == FALSE) {
        CallEntryPoint(*module, DLL_PROCESS_DETACH, nullptr);
        Unload(loader, module);
        return Fail<HMODULE>(ERROR_DLL_INIT_FAILED, nullptr);
    }
    module->initialized = true;
    // After the module's constructors, so that it is detached before its static objects are destroyed.
    RegisterProcessExit();
    return ToHandle(module);
}

namespace {

std::string BaseName(const std::string& path) {
    return path.substr(path.find_last_of("/\\") + 1);
}

/// A loaded module by path, or by file name with or without extension.
Module* FindByName(Loader& loader, std::string name) {
    if (BaseName(name).find('.') == std::string::npos) name += ".dll";
    const bool wholePath = name.find_first_of("/\\") != std::string::npos;
    for (const auto& loaded : loader.modules) {
        if (EqualsIgnoringCase(wholePath ? loaded->path : BaseName(loaded->path), name)) return loaded.get();
    }
    // Named modules keep their handles for good, but are found only while the source names them.
    for (const std::string& extra : NamesOfProcess().modules) {
        if (!EqualsIgnoringCase(extra, name)) continue;
        for (const auto& named : loader.named) {
            if (EqualsIgnoringCase(named->path, name)) return named.get();
        }
        loader.named.push_back(std::make_unique<Module>());
        loader.named.back()->path = extra;
        return loader.named.back().get();
    }
    return nullptr;
}

Module* FindByAddress(Loader& loader, const void* address) {
    Dl_info info;
    if (dladdr(address, &info) == 0) return nullptr;
    for (const auto& loaded : loader.modules) {
        link_map* map = nullptr;
        if (dlinfo(loaded->library, RTLD_DI_LINKMAP, &map) == 0 &&
            reinterpret_cast<void*>(map->l_addr) == info.dli_fbase)
            return loaded.get();
    }
    Dl_info executable;
    const auto* const entry = reinterpret_cast<const void*>(getauxval(AT_ENTRY));
    if (dladdr(entry, &executable) != 0 && executable.dli_fbase == info.dli_fbase) return &loader.executable;
    return nullptr;
}

}  // namespace

void NotifyModulesOfThread(DWORD reason) noexcept {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    // By index: an entry point may load another module.
    for (std::size_t i = 0; i < loader.modules.size(); ++i) {
        Module& module = *loader.modules[i];
        if (module.initialized && module.wantsThreadCalls) CallEntryPoint(module, reason, nullptr);
    }
}

void DetachModulesAtExit() noexcept {
    Loader& loader = TheLoader();
    // A frozen thread may hold the lock for ever; Windows ends the process then. One that still runs is about
    // to leave it.
    constexpr std::chrono::milliseconds kPatience(1000);
    if (!loader.mutex.try_lock_for(kPatience)) AbandonProcessExit();
    for (std::size_t i = loader.modules.size(); i-- > 0;) {
        Module& module = *loader.modules[i];
        if (module.initialized) CallEntryPoint(module, DLL_PROCESS_DETACH, &loader);
        module.initialized = false;
    }
    loader.mutex.unlock();
}

int CountModules() noexcept {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    return static_cast<int>(loader.modules.size());
}

BOOL FreeModule(HMODULE handle) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    Module* module = FromHandle(loader, handle);
    if (handle == nullptr || module == nullptr) return Fail(ERROR_MOD_NOT_FOUND);
    if (module->library == nullptr || module == &loader.executable || module->pinned) return TRUE;
    if (--module->references > 0) return TRUE;
    module->initialized = false;
    CallEntryPoint(*module, DLL_PROCESS_DETACH, nullptr);
    Unload(loader, module);
    return TRUE;
}

HMODULE FindModule(const char* name) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    Module* module = name == nullptr ? &loader.executable : FindByName(loader, name);
    return module != nullptr ? ToHandle(module) : Fail<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
}

BOOL FindModuleEx(DWORD flags, const char* name, const void* address, HMODULE* result) {
    *result = nullptr;
    const bool pin = (flags & GET_MODULE_HANDLE_EX_FLAG_PIN) != 0;
    const bool unchanged = (flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT) != 0;
    if (pin && unchanged) return Fail(ERROR_INVALID_PARAMETER);
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    Module* module = &loader.executable;
    if (address != nullptr) {
        module = FindByAddress(loader, address);
    } else if (name != nullptr) {
        module = FindByName(loader, name);
    }
    if (module == nullptr) return Fail(ERROR_MOD_NOT_FOUND);
    if (pin) module->pinned = true;
    if (!pin && !unchanged) ++module->references;
    *result = ToHandle(module);
    return TRUE;
}

std::string PathOfModule(HMODULE handle) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    const Module* module = FromHandle(loader, handle);
    if (module == nullptr) return Fail<std::string>(ERROR_MOD_NOT_FOUND, "");
    if (module != &loader.executable) return module->path;
    const std::string image = NamesOfProcess().image;
    return image.empty() ? module->path : image;
}

void* FindExport(HMODULE handle, const char* name) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    const Module* module = FromHandle(loader, handle);
    if (module == nullptr) return Fail<void*>(ERROR_MOD_NOT_FOUND, nullptr);
    void* address = module->library != nullptr ? dlsym(module->library, name) : nullptr;
    return address != nullptr ? address : Fail<void*>(ERROR_PROC_NOT_FOUND, nullptr);
}

BOOL DeclineThreadCalls(HMODULE handle) {
    Loader& loader = TheLoader();
    const LoaderHolder holder(loader.mutex);
    Module* module = FromHandle(loader, handle);
    if (module == nullptr) return Fail(ERROR_MOD_NOT_FOUND);
    module->wantsThreadCalls = false;
    return TRUE;
}

}  // namespace platform
