// The echo server and client on completion ports, as real processes above the base provider alone and
// through the layer.
#include "apps/demo/child_process.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <fstream>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kLimit = 60s;

enum class Through { kBase, kLayer };

struct EchoCase {
    const char* name;
    Through through;
    bool connectEx;
};

class EchoTest : public ::testing::TestWithParam<EchoCase> {
  protected:
    EchoTest() : machineFile_(fs::temp_directory_path() / ("qx-echo-" + std::to_string(getpid()) + ".toml")) {
        std::ofstream(machineFile_) << "[catalog]\nlayer = \"default\"\n";
    }
    ~EchoTest() override { fs::remove(machineFile_); }

    ChildOptions EchoProgram(const std::vector<std::string>& arguments) const {
        ChildOptions options;
        options.arguments = {(fs::read_symlink("/proc/self/exe").parent_path() / "qxecho").string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        const bool layered = GetParam().through == Through::kLayer;
        options.environment = {{"QX_MACHINE", layered ? machineFile_.string() : ""}};
        options.errorFile = "/dev/null";
        return options;
    }

  private:
    fs::path machineFile_;
};

INSTANTIATE_TEST_SUITE_P(Ways, EchoTest,
                         ::testing::Values(EchoCase{"Base", Through::kBase, false},
                                           EchoCase{"BaseConnectEx", Through::kBase, true},
                                           EchoCase{"Layer", Through::kLayer, false},
                                           EchoCase{"LayerConnectEx", Through::kLayer, true}),
                         [](const auto& way) { return std::string(way.param.name); });

TEST_P(EchoTest, ThousandConnectionsAtOnceGetTheirOwnBytesBack) {
    ChildProcess server(EchoProgram({"server"}));
    const auto line = server.Line(0, After(kLimit));
    ASSERT_TRUE(line && line->rfind("listening on ", 0) == 0);

    std::vector<std::string> arguments = {"client", line->substr(13), "--connections", "1000", "--rounds",
                                          "5",      "--json"};
    if (GetParam().connectEx) arguments.push_back("--connect-ex");
    ChildProcess client(EchoProgram(arguments));
    EXPECT_EQ(client.Wait(After(kLimit)), 0);
    const auto output = client.Output();
    ASSERT_EQ(output.size(), 1u);
    const auto outcome = nlohmann::json::parse(output[0]);
    EXPECT_EQ(outcome.value("finished", 0), 1000) << output[0];
    EXPECT_EQ(outcome.value("echoes", 0), 5000) << output[0];
    EXPECT_EQ(outcome.value("wrong", -1), 0) << output[0];

    server.RequestStop();
    EXPECT_EQ(server.Wait(After(kLimit)), 0);
    EXPECT_EQ(server.Output().back(), "accepted 1000 connections, 1000 at once");
}

}  // namespace
