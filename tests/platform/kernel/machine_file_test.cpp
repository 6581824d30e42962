// The machine's file: what it says, and what is said of one that is wrong.
#include <gtest/gtest.h>

#include <string>

#include "platform/testing/machine.h"

namespace {

#ifdef _WIN32
constexpr char kBaseProvider[] = "\\qxlower.dll";
constexpr char kLayer[] = "\\qxlsp.dll";
#else
constexpr char kBaseProvider[] = "/libqxtcpip.so";
constexpr char kLayer[] = "/libqxlsp.so";
#endif

}  // namespace

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

TEST(MachineFile, RoutesAndDefaults) {
    std::string message;
    const auto machine = platform::ParseMachine(
        "[catalog]\nlayer = 'default'\n[[routes]]\ndestination = '203.0.113.10:0'\ntarget = 'blackhole'\n"
        "[[routes]]\ndestination = '[2001:db8::1]:443'\ntarget = '127.0.0.1:41080'\n",
        "m.toml", &message);
    ASSERT_NE(machine, nullptr) << message;
    EXPECT_NE(machine->baseProvider.find(kBaseProvider), std::string::npos);
    EXPECT_NE(machine->layer.find(kLayer), std::string::npos);
    EXPECT_NE(machine->userName.find('\\'), std::string::npos);
    ASSERT_EQ(machine->routes.size(), 2u);
    EXPECT_TRUE(machine->routes[0].blackHole && machine->routes[0].destinationPort == 0);
    EXPECT_EQ(machine->routes[1].destinationAddress, "2001:db8::1");
    EXPECT_EQ(machine->routes[1].destinationPort, 443);
    EXPECT_EQ(machine->routes[1].targetPort, 41080);
}
