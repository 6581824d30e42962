// The layer's module called directly, beside Winsock: what a test of its start and its end needs.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

/// The module, loaded by its path.
class LoadedLayer {
  public:
    explicit LoadedLayer(const std::string& path) : module_(LoadLibraryA(path.c_str())) {}
    ~LoadedLayer() { Unload(); }
    LoadedLayer(const LoadedLayer&) = delete;
    LoadedLayer& operator=(const LoadedLayer&) = delete;

    void Unload() {
        if (module_ != nullptr) FreeLibrary(module_);
        module_ = nullptr;
    }

    template <class Function>
    Function Export(const char* name) const {
        const FARPROC address = GetProcAddress(module_, name);
        Function function = nullptr;
        std::memcpy(&function, &address, sizeof(function));
        return function;
    }

  private:
    HMODULE module_;
};

inline WSPUPCALLTABLE Upcalls() {
    WSPUPCALLTABLE table{};
    table.lpWPUCreateSocketHandle = WPUCreateSocketHandle;
    table.lpWPUQuerySocketHandleContext = WPUQuerySocketHandleContext;
    table.lpWPUCloseSocketHandle = WPUCloseSocketHandle;
    table.lpWPUFDIsSet = WPUFDIsSet;
    return table;
}

/// The layer's catalog entry for IPv4 sockets of a type.
inline WSAPROTOCOL_INFOW EntryOf(int type) {
    WSAPROTOCOL_INFOW entries[16];
    DWORD size = sizeof(entries);
    INT error = 0;
    const int count = WSCEnumProtocols(nullptr, entries, &size, &error);
    for (int i = 0; i < count; ++i) {
        const WSAPROTOCOL_INFOW& info = entries[i];
        if (info.ProtocolChain.ChainLen == 2 && info.iAddressFamily == AF_INET && info.iSocketType == type)
            return info;
    }
    ADD_FAILURE() << "the catalog has no layer";
    return {};
}
