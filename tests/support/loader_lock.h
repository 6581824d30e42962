// Acting with the loader's lock held, as a library's entry does: threads can neither begin nor end meanwhile.
// Linked with qx_loader_lock.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

inline void WithLoaderLock(const std::function<void()>& act) {
    const HMODULE module = LoadLibraryA(QX_LOADER_LOCK_MODULE);
    ASSERT_NE(module, nullptr);
    const FARPROC address = GetProcAddress(module, "CallWhenUnloaded");
    void (*callWhenUnloaded)(void (*)(void*), void*) = nullptr;
    std::memcpy(&callWhenUnloaded, &address, sizeof(callWhenUnloaded));
    callWhenUnloaded([](void* argument) { (*static_cast<const std::function<void()>*>(argument))(); },
                     const_cast<std::function<void()>*>(&act));
    FreeLibrary(module);
}
