// The shipped DLL by itself, as any process loads it, with no host and no routes: what many loads leave
// behind.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kLoads = 500;

// The C++ runtime that is linked into the DLL makes a record of the loading thread while its own start-up
// code runs, and keeps it for ever: an event, a handle to the thread, a TLS slot (of the 1088 of a process)
// and some memory. Nothing else may stay.
constexpr DWORD kHandlesPerLoad = 2;
constexpr SIZE_T kBytesPerLoad = 32 * 1024;

std::string LayerPath() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH - 1);
    const std::string program = path;
    return program.substr(0, program.find_last_of('\\') + 1) + "qxlsp.dll";
}

/// Memory that is the process's own. Asked of the address space and not of the system's counters, which Wine
/// leaves zero.
SIZE_T PrivateBytes() {
    SIZE_T bytes = 0;
    MEMORY_BASIC_INFORMATION region;
    const char* address = nullptr;
    while (VirtualQuery(address, &region, sizeof(region)) == sizeof(region)) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
        const char* next = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
        if (next <= address) break;
        address = next;
    }
    return bytes;
}

/// Open handles: their values are multiples of four, given out from the lowest free one on.
DWORD Handles() {
    constexpr ULONG_PTR kHighest = 0x10000;
    DWORD count = 0;
    for (ULONG_PTR value = 4; value < kHighest; value += 4) {
        DWORD flags;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
    }
    return count;
}

TEST(Load, FiveHundredLoadsLeaveOnlyWhatTheRuntimeKeeps) {
    const std::string path = LayerPath();
    // The system's libraries that the DLL needs stay loaded, so that only the DLL itself comes and goes.
    for (const char* library : {"ws2_32.dll", "mswsock.dll", "advapi32.dll", "shell32.dll", "secur32.dll",
                                "crypt32.dll", "user32.dll"})
        ASSERT_NE(LoadLibraryA(library), nullptr) << library;
    const SIZE_T bytesWithout = PrivateBytes();
    HMODULE first = LoadLibraryA(path.c_str());
    ASSERT_NE(first, nullptr) << GetLastError();
    const SIZE_T bytesWith = PrivateBytes();
    FreeLibrary(first);

    const DWORD handles = Handles();
    const SIZE_T bytes = PrivateBytes();
    for (int i = 0; i < kLoads; ++i) {
        const HMODULE module = LoadLibraryA(path.c_str());
        ASSERT_NE(module, nullptr) << "load " << i << ": " << GetLastError();
        ASSERT_NE(GetProcAddress(module, "WSPStartup"), nullptr);
        ASSERT_NE(GetProcAddress(module, "GetLspGuid"), nullptr);
        ASSERT_TRUE(FreeLibrary(module));
        ASSERT_EQ(GetModuleHandleA("qxlsp.dll"), nullptr);
    }
    const DWORD handlesAfter = Handles();
    const SIZE_T bytesAfter = PrivateBytes();
    std::printf("loaded once: %lu bytes; %d loads: handles %lu -> %lu, private bytes %lu -> %lu\n",
                static_cast<unsigned long>(bytesWith - bytesWithout), kLoads, handles, handlesAfter,
                static_cast<unsigned long>(bytes), static_cast<unsigned long>(bytesAfter));
    EXPECT_LE(handlesAfter, handles + kLoads * kHandlesPerLoad + 8);
    EXPECT_LE(bytesAfter, bytes + kLoads * kBytesPerLoad);
}

}  // namespace
