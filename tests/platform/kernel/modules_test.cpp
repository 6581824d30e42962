// Loading, finding and unloading modules, and what their entry points hear.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "tests/platform/kernel/environment_variable.h"
#include "tests/platform/kernel/test_handle.h"
#include "tests/platform/wine.h"

namespace {

// Modules with static thread-local storage go on hearing of threads; every one of the Windows toolchain has
// some.
#ifdef _WIN32
constexpr bool kHasThreadStorage = true;
#else
constexpr bool kHasThreadStorage = false;
#endif

using NotesFunction = const char* (*)();

std::string Notes(HMODULE module) {
    const FARPROC address = GetProcAddress(module, "TestModuleNotes");
    return address == nullptr ? "(no export)"
                              : reinterpret_cast<NotesFunction>(reinterpret_cast<void*>(address))();
}

}  // namespace

TEST(Modules, EntryPointHearsTheFirstLoadThreadsAndTheLastFree) {
    HMODULE module = LoadLibraryA(TEST_MODULE_PATH);
    ASSERT_NE(module, nullptr);
    const std::string path = TEST_MODULE_PATH;
    const std::basic_string<WCHAR> wide(path.begin(), path.end());
    EXPECT_EQ(LoadLibraryW(wide.c_str()), module);
    EXPECT_EQ(Notes(module), "attach ");
    auto body = [] { return 0; };
    EXPECT_EQ(RunOnThread(&body), 0u);
    EXPECT_EQ(Notes(module), "attach thread-attach thread-detach ");
    EXPECT_EQ(DisableThreadLibraryCalls(module), kHasThreadStorage ? FALSE : TRUE);
    if (!kHasThreadStorage) {
        EXPECT_EQ(RunOnThread(&body), 0u);
    }
    EXPECT_EQ(Notes(module), "attach thread-attach thread-detach ");

    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(Notes(module), "attach thread-attach thread-detach ");
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetProcAddress(module, "TestModuleNotes"), nullptr);
    EXPECT_FALSE(FreeLibrary(module));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    module = LoadLibraryA(TEST_MODULE_PATH);
    EXPECT_EQ(Notes(module), "attach ") << "really unloaded in between";
    FreeLibrary(module);
}

TEST(Modules, FailuresHaveTheirErrors) {
    EXPECT_EQ(LoadLibraryA("/no/such/module.so"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    {
        const ScopedVariable refuses("QX_TEST_MODULE_REFUSES", "1");
        EXPECT_EQ(LoadLibraryA(TEST_MODULE_PATH), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DLL_INIT_FAILED));
    }
    HMODULE module = LoadLibraryA(TEST_MODULE_PATH);
    EXPECT_EQ(GetProcAddress(module, "NoSuchExport"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
    FreeLibrary(module);
}

TEST(Modules, AreFoundByNameAndAddressWithTheirPaths) {
    HMODULE module = LoadLibraryA(TEST_MODULE_PATH);
    const std::string path = TEST_MODULE_PATH;
    const std::string fileName = path.substr(path.rfind('/') + 1);
    EXPECT_EQ(GetModuleHandleA(fileName.c_str()), module);
    char buffer[MAX_PATH];
    const DWORD length = GetModuleFileNameA(module, buffer, MAX_PATH);
    EXPECT_EQ(length, std::string(buffer).size());
    EXPECT_NE(std::string(buffer).find(fileName), std::string::npos);
    EXPECT_EQ(GetModuleFileNameA(module, buffer, 5), 5u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    if (Keeps(Documented::kCutPathsEndWithZero)) {
        EXPECT_EQ(std::string(buffer).size(), 4u);
    }

    HMODULE found = nullptr;
    const auto* inside = reinterpret_cast<const char*>(GetProcAddress(module, "TestModuleNotes"));
    EXPECT_TRUE(GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, inside, &found));
    EXPECT_EQ(found, module);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetModuleHandleA(fileName.c_str()), module) << "one reference left";
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetModuleHandleA(fileName.c_str()), nullptr);
    EXPECT_GT(GetModuleFileNameA(nullptr, buffer, MAX_PATH), 0u);
    EXPECT_NE(std::string(buffer).find("kernel_test"), std::string::npos);
}
