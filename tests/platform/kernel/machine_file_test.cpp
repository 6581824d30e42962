// The machine's file: what it says, and what is said of one that is wrong.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/testing/machine.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace {

/// A folder of this process, gone with the test.
class MachineFileOnDisk : public testing::Test {
  protected:
    MachineFileOnDisk() { std::filesystem::create_directories(folder_); }
    ~MachineFileOnDisk() override { std::filesystem::remove_all(folder_); }

    std::string PathOf(const std::string& name) const { return (folder_ / name).string(); }

    /// What is said of a file that is no machine.
    static std::string RefusalOf(const std::string& path) {
        std::string message;
        EXPECT_EQ(platform::ReadMachineFile(path, &message), nullptr);
        return message;
    }

    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("qx-machine-" + std::to_string(GetCurrentProcessId()));
};

}  // namespace

TEST_F(MachineFileOnDisk, EmptyIsTheMachineWithoutAFile) {
    std::ofstream(PathOf("empty.toml")).close();
    std::string message;
    const auto machine = platform::ReadMachineFile(PathOf("empty.toml"), &message);
    ASSERT_NE(machine, nullptr) << message;
    EXPECT_EQ(machine->baseProvider, platform::ParseMachine("", "nothing", &message)->baseProvider);
    EXPECT_EQ(machine->layer, "");
}

TEST_F(MachineFileOnDisk, OnlyAnOrdinaryFileIsRead) {
    EXPECT_EQ(RefusalOf(PathOf("missing")), PathOf("missing") + ": cannot be read");
    EXPECT_EQ(RefusalOf(folder_.string()), folder_.string() + ": is not an ordinary file");
#ifndef _WIN32
    // Nobody ever writes to it.
    ASSERT_EQ(mkfifo(PathOf("pipe").c_str(), 0600), 0);
    EXPECT_EQ(RefusalOf(PathOf("pipe")), PathOf("pipe") + ": is not an ordinary file");
    EXPECT_EQ(RefusalOf("/dev/null"), "/dev/null: is not an ordinary file");
#endif
}

TEST(MachineFile, ErrorsNameTheirPlaceAndReason) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[catalog]\nlayer = \n", "m.toml:2:"},
        {"[catalog]\nlayers = 'x'\n", "m.toml:2:1: unknown key 'layers'"},
        {"[machine]\n", "unknown key 'machine'"},
        {"[user]\nname = 5\n", "m.toml:2:8: expected a string"},
        {"[registry.'HKEY_LOCAL_MACHINE\\A']\nv = 4294967296\n",
         "m.toml:2:5: expected an integer from 0 to 4294967295"},
        {"[[routes]]\ndestination = '203.0.113.10'\ntarget = '127.0.0.1:1'\n",
         "m.toml:2:15: expected a numeric address"},
        {"[[routes]]\ndestination = '203.0.113.10:70000'\ntarget = '127.0.0.1:1'\n", "m.toml:2:15: "},
        {"[[routes]]\ndestination = '203.0.113.10:7'\n", "a route has a destination and a target"},
        {"[[windows]]\nowner = 0\n", "a window's owner is an earlier window"},
    };
    for (const auto& test : cases) {
        std::string message;
        EXPECT_EQ(platform::ParseMachine(test.text, "m.toml", &message), nullptr) << test.text;
        EXPECT_NE(message.find(test.message), std::string::npos) << message;
        EXPECT_EQ(message.rfind("m.toml:", 0), 0u) << message;
    }
}

TEST(MachineFile, SettingsAreRead) {
    const char text[] = R"(
[registry_access]
deny_write = true
[user]
name = 'DEMO\alice'
[process]
image = 'C:/Demo/demo.exe'
modules = ['extra.dll', 'other.dll']
[certificate]
subject = 'Demo Signer'
[[windows]]
title = 'Main'
process = 4
[[windows]]
title = 'Stuck'
hung = true
owner = 0
[[routes]]
destination = '203.0.113.10:0'
target = 'blackhole'
[[routes]]
destination = '[2001:db8::1]:443'
target = '127.0.0.1:41080'
)";
    std::string message;
    const auto machine = platform::ParseMachine(text, "m.toml", &message);
    ASSERT_NE(machine, nullptr) << message;
    EXPECT_TRUE(machine->denyRegistryWrite);
    EXPECT_EQ(machine->userName, "DEMO\\alice");
    EXPECT_EQ(machine->processImage, "C:/Demo/demo.exe");
    EXPECT_EQ(machine->extraModules, (std::vector<std::string>{"extra.dll", "other.dll"}));
    EXPECT_EQ(machine->certificateSubject, "Demo Signer");
    ASSERT_EQ(machine->windows.size(), 2u);
    EXPECT_TRUE(machine->windows[0].title == "Main" && machine->windows[0].process == 4);
    EXPECT_TRUE(machine->windows[1].hung && machine->windows[1].owner == 0);
    ASSERT_EQ(machine->routes.size(), 2u);
    EXPECT_TRUE(machine->routes[0].blackHole && machine->routes[0].destinationPort == 0);
    EXPECT_EQ(machine->routes[1].destinationAddress, "2001:db8::1");
    EXPECT_EQ(machine->routes[1].destinationPort, 443);
    EXPECT_EQ(machine->routes[1].targetPort, 41080);
}
