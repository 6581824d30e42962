// Where the analyzer's port comes from: the registry only says whether the file is looked at, the file gives
// the port, and what can't be used leaves the cached one.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "relay/channel/settings.h"

namespace {

constexpr char kProductKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantrex Software\\Talvessa QX";
constexpr DWORD kCacheMilliseconds = 300000;

class Settings : public ::testing::Test {
  protected:
    void SetUp() override {
        folder_ =
            std::filesystem::temp_directory_path() / ("qx-port-" + std::to_string(GetCurrentProcessId()));
        std::filesystem::create_directories(folder_ / "VantrexSoftware" / "Talvessa");
        platform::SetClockRate(0);
    }
    void TearDown() override {
        platform::ResetClock();
        platform::SetMachineForTest(*machine_);
        std::filesystem::remove_all(folder_);
    }

    void Configure(std::optional<std::uint32_t> registryPort, std::optional<std::string> fileBytes,
                   bool denyWrite = false, std::optional<std::uint32_t> stopOnFailConnect = {}) {
        platform::Machine machine;
        machine.commonAppData = folder_.string();
        machine.denyRegistryWrite = denyWrite;
        const auto set = [&](const char* name, std::optional<std::uint32_t> number) {
            if (!number) return;
            platform::RegistryValue& value = machine.registry[kProductKey][name];
            value.isNumber = true;
            value.number = *number;
        };
        set("Port", registryPort);
        set("StopActivityOnFailConnect", stopOnFailConnect);
        platform::SetMachineForTest(machine);
        const auto file = folder_ / "VantrexSoftware" / "Talvessa" / "p_info";
        std::filesystem::remove(file);
        if (fileBytes) std::ofstream(file, std::ios::binary) << *fileBytes;
    }

    static std::string Bytes(std::uint32_t port) {
        std::string bytes;
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(port >> shift & 0xFF);
        return bytes;
    }

    std::filesystem::path folder_;
    std::shared_ptr<const platform::Machine> machine_ = platform::TheMachine();
};

TEST_F(Settings, RegistryAndFileDecideTogether) {
    struct {
        const char* what;
        std::optional<std::string> file;
        std::optional<std::uint32_t> registry;
        unsigned int expected;
        bool denyWrite;
    } const steps[] = {
        {"nothing configured", {}, {}, 48191, false},
        {"lowest port of a file", Bytes(1025), {}, 1025, false},
        {"below it", Bytes(1024), {}, 1025, false},
        {"highest port of a file, with another one in the registry", Bytes(64999), 2000, 64999, false},
        {"above it", Bytes(65000), {}, 64999, false},
        {"only the low half of the number would be a port", Bytes(0x10000 + 5000), {}, 64999, false},
        {"a short file", std::string("\x88\x13\x00", 3), {}, 64999, false},
        {"a longer file counts by its first four bytes", Bytes(5000) + "more", {}, 5000, false},
        {"the registry's usual port keeps the cached one", Bytes(6000), 48191, 5000, false},
        {"unless the key may not be opened", Bytes(6000), 48191, 6000, true},
    };
    for (const auto& step : steps) {
        Configure(step.registry, step.file, step.denyWrite);
        platform::AdvanceClock(kCacheMilliseconds + 1000);
        EXPECT_EQ(GetRelayPort(), step.expected) << step.what;
    }
}

TEST_F(Settings, ReadsOnceInFiveMinutes) {
    Configure({}, Bytes(5001));
    platform::AdvanceClock(kCacheMilliseconds + 1000);
    ASSERT_EQ(GetRelayPort(), 5001u);

    Configure({}, Bytes(5002));
    platform::CountCalls();
    platform::AdvanceClock(kCacheMilliseconds);
    EXPECT_EQ(GetRelayPort(), 5001u);
    const auto calls = platform::CountedCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "RegOpenKeyExA"), 0);
    platform::DisarmFaults();
    platform::AdvanceClock(1000);
    EXPECT_EQ(GetRelayPort(), 5002u);
}

TEST_F(Settings, AClockThatIsSetBackMakesNothingStale) {
    constexpr DWORD kDay = 24 * 3600 * 1000;
    Configure({}, Bytes(5005), false, 1);
    platform::AdvanceClock(2 * kCacheMilliseconds + 1000);
    ASSERT_EQ(GetRelayPort(), 5005u);
    ASSERT_TRUE(StopsActivityOnFailConnect());

    Configure({}, Bytes(5006), false, 0);
    platform::SetCalendarBack(kDay);
    platform::AdvanceClock(2 * kCacheMilliseconds + 1000);
    EXPECT_EQ(GetRelayPort(), 5005u);
    EXPECT_TRUE(StopsActivityOnFailConnect());
    platform::SetCalendarBack(0);
    EXPECT_EQ(GetRelayPort(), 5006u);
    EXPECT_FALSE(StopsActivityOnFailConnect());
}

TEST_F(Settings, WithoutFolderTheCachedPortStays) {
    Configure({}, Bytes(5003));
    platform::AdvanceClock(kCacheMilliseconds + 1000);
    ASSERT_EQ(GetRelayPort(), 5003u);
    Configure({}, Bytes(5004));
    platform::AdvanceClock(kCacheMilliseconds + 1000);
    const platform::ScopedFault fault({"SHGetFolderPathA"});
    EXPECT_EQ(GetRelayPort(), 5003u);
    EXPECT_EQ(platform::FaultsStruck(), 1);
}

}  // namespace
