// Loading, finding and unloading modules, and what their entry points hear.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/testing/machine.h"
#include "tests/platform/kernel/test_handle.h"

namespace {

using NotesFunction = const char* (*)();

std::string Notes(HMODULE module) {
    const FARPROC address = GetProcAddress(module, "TestModuleNotes");
    return address == nullptr ? "(no export)"
                              : reinterpret_cast<NotesFunction>(reinterpret_cast<void*>(address))();
}

struct ScopedEnvironment {
    explicit ScopedEnvironment(const char* variable) : name(variable) { setenv(name, "1", 1); }
    ~ScopedEnvironment() { unsetenv(name); }
    const char* const name;
};

/// A program's output; `*status` is its exit status.
std::string RunProgram(const std::string& command, int* status) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), pipe) != nullptr)
        output += buffer;
    *status = WEXITSTATUS(pclose(pipe));
    return output;
}

}  // namespace

TEST(Modules, EntryPointHearsTheFirstLoadThreadsAndTheLastFree) {
    HMODULE module = LoadLibraryA(TEST_MODULE_PATH);
    ASSERT_NE(module, nullptr);
    const std::string path = TEST_MODULE_PATH;
    const std::u16string wide(path.begin(), path.end());
    EXPECT_EQ(LoadLibraryW(wide.c_str()), module);
    EXPECT_EQ(Notes(module), "attach ");
    auto body = [] { return 0; };
    {
        TestHandle thread(StartThread(&body));
        WaitForSingleObject(thread, kPatience);
    }
    EXPECT_EQ(Notes(module), "attach thread-attach thread-detach ");
    EXPECT_TRUE(DisableThreadLibraryCalls(module));
    {
        TestHandle thread(StartThread(&body));
        WaitForSingleObject(thread, kPatience);
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
        const ScopedEnvironment refuses("QX_TEST_MODULE_REFUSES");
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
    EXPECT_EQ(std::string(buffer).size(), 4u);

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

TEST(Modules, TheMachineAddsNamesAndTheImagePath) {
    std::string message;
    const auto machine = platform::ParseMachine(
        "[process]\nimage = 'C:/Program Files/Demo/demo.exe'\nmodules = ['extra.dll']\n", "test", &message);
    ASSERT_NE(machine, nullptr) << message;
    platform::SetMachineForTest(*machine);
    EXPECT_NE(GetModuleHandleA("EXTRA"), nullptr);
    EXPECT_EQ(GetModuleHandleA("extra2.dll"), nullptr);
    char buffer[MAX_PATH];
    GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    EXPECT_STREQ(buffer, "C:/Program Files/Demo/demo.exe");
    platform::SetMachineForTest({});
}

TEST(Modules, AreDetachedWhenTheProcessEndsThoughThreadsStillRun) {
    int status = 0;
    const std::string probe = std::string(EXIT_PROBE_PATH) + " " + TEST_MODULE_PATH;
    EXPECT_EQ(RunProgram(probe + " plain", &status), "attach thread-attach detach! waited ");
    EXPECT_EQ(status, 17);
    // A module that needs what a killed thread held: the process ends at once, with the status it had.
    EXPECT_EQ(RunProgram(probe + " lock", &status), "");
    EXPECT_EQ(status, 17);
}
