// What the process and its folders become by the scripted machine.
#include <windows.h>

#include <shlobj.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/testing/machine.h"

TEST(ScriptedMachine, AddsModuleNamesTheImagePathAndTheFolder) {
    const std::string folder =
        ::testing::TempDir() + "qx-system-test-" + std::to_string(GetCurrentProcessId());
    platform::Machine machine;
    machine.processImage = "C:/Program Files/Demo/demo.exe";
    machine.extraModules = {"extra.dll"};
    machine.commonAppData = folder;
    platform::SetMachineForTest(machine);
    EXPECT_NE(GetModuleHandleA("EXTRA"), nullptr);
    EXPECT_EQ(GetModuleHandleA("extra2.dll"), nullptr);
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    EXPECT_STREQ(path, "C:/Program Files/Demo/demo.exe");
    EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path), S_OK);
    EXPECT_EQ(path, folder);
    EXPECT_TRUE(std::filesystem::remove(path)) << "it was made";
    platform::SetMachineForTest({});
}
