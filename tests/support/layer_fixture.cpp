// A machine with the layer on it, set up and taken down.
#include "tests/support/layer_fixture.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/machine.h"

namespace {

constexpr char kProductKey[] = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantrex Software\\Talvessa QX";

// The last clean-up sleeps for the stragglers of its threads; but what ends them must have real time, too.
constexpr double kCleanupRate = 10;

std::string FreshDirectory() {
    static std::atomic<int> count{0};
    const auto path = std::filesystem::temp_directory_path() /
                      ("qx-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++count));
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
    return path.string();
}

/// A thread of the layer's that is about to end keeps the library, and with it what it has read of the
/// settings.
void WaitForLayerToGo(const std::string& path) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (GetModuleHandleA(path.c_str()) != nullptr && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
}

}  // namespace

void LayerFixture::SetUp() {
    std::string message;
    const auto machine = platform::ParseMachine("[catalog]\nlayer = \"default\"\n", "test", &message);
    ASSERT_NE(machine, nullptr) << message;
    machine_ = *machine;
    directory_ = FreshDirectory();
    machine_.commonAppData = directory_;
    machine_.userName = "TESTDOMAIN\\tester";
    debugOutput_.emplace();
    before_ = platform::CountResources();
}

void LayerFixture::TearDown() {
    platform::DisarmFaults();
    if (started_) StopWinsock();
    if (!expectLeftovers_) {
        EXPECT_EQ(platform::SettleTo(before_), "");
    }
    if (HasFailure()) {
        for (const std::string& line : DebugLines())
            std::fprintf(stderr, "debug output: %s\n", line.c_str());
    }
    debugOutput_.reset();
    std::filesystem::remove_all(directory_);
}

void LayerFixture::ApplyMachine() {
    platform::SetMachineForTest(machine_);
}

void LayerFixture::SetAnalyzerPort(std::uint16_t port) {
    const auto folder = std::filesystem::path(directory_) / "VantrexSoftware" / "Talvessa";
    std::filesystem::create_directories(folder);
    const std::uint32_t value = port;
    std::ofstream(folder / "p_info", std::ios::binary)
        .write(reinterpret_cast<const char*>(&value), sizeof(value));
}

void LayerFixture::SetRegistryValue(const std::string& name, DWORD value) {
    platform::RegistryValue& entry = machine_.registry[kProductKey][name];
    entry.isNumber = true;
    entry.number = value;
}

platform::MachineRoute& LayerFixture::AddRoute(const std::string& destination) {
    const std::size_t colon = destination.rfind(':');
    platform::MachineRoute route;
    route.destinationAddress = destination.substr(0, colon);
    route.destinationPort = static_cast<std::uint16_t>(std::stoi(destination.substr(colon + 1)));
    machine_.routes.push_back(route);
    return machine_.routes.back();
}

void LayerFixture::RouteTo(const std::string& destination, std::uint16_t loopbackPort) {
    platform::MachineRoute& route = AddRoute(destination);
    route.targetAddress = "127.0.0.1";
    route.targetPort = loopbackPort;
}

void LayerFixture::RouteToNowhere(const std::string& destination) {
    AddRoute(destination).blackHole = true;
}

void LayerFixture::StartWinsock() {
    if (stopped_) WaitForLayerToGo(machine_.layer);
    ApplyMachine();
    WSADATA data{};
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    started_ = true;
}

void LayerFixture::StopWinsock() {
    started_ = false;
    platform::SetClockRate(kCleanupRate);
    EXPECT_EQ(WSACleanup(), 0);
    platform::ResetClock();
    stopped_ = true;
}

std::size_t LayerFixture::CountDebugLines(const std::string& part) const {
    std::size_t count = 0;
    for (const std::string& line : DebugLines())
        count += line.find(part) != std::string::npos ? 1 : 0;
    return count;
}

sockaddr_in Ipv4(const std::string& address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = inet_addr(address.c_str());
    return result;
}
