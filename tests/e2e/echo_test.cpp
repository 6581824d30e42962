// The echo server and client on completion ports, as real processes above the base provider alone and
// through the layer.
#include "apps/demo/application_programs.h"
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
    EchoTest()
        : programs_(ApplicationPrograms::FromEnvironment()),
          // Wine's server carries out every request of both processes, one after the other.
          connections_(programs_.AreNative() ? 1000 : 250),
          machineFile_(fs::temp_directory_path() / ("qx-echo-" + std::to_string(getpid()) + ".toml")) {
        std::ofstream(machineFile_) << "[catalog]\nlayer = \"default\"\n";
    }
    ~EchoTest() override { fs::remove(machineFile_); }

    ChildOptions EchoProgram(const std::vector<std::string>& arguments) const {
        ChildOptions options;
        options.arguments = programs_.Command("qxecho");
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        const bool layered = GetParam().through == Through::kLayer;
        options.environment = {{"QX_MACHINE", layered ? programs_.PathFor(machineFile_) : ""}};
        options.errorFile = "/dev/null";
        return options;
    }

    const ApplicationPrograms programs_;
    const int connections_;

  private:
    fs::path machineFile_;
};

INSTANTIATE_TEST_SUITE_P(Ways, EchoTest,
                         ::testing::Values(EchoCase{"Base", Through::kBase, false},
                                           EchoCase{"BaseConnectEx", Through::kBase, true},
                                           EchoCase{"Layer", Through::kLayer, false},
                                           EchoCase{"LayerConnectEx", Through::kLayer, true}),
                         [](const auto& way) { return std::string(way.param.name); });

TEST_P(EchoTest, ManyConnectionsAtOnceGetTheirOwnBytesBack) {
    ChildProcess server(EchoProgram({"server", "--until-input-ends"}));
    const auto line = server.Line(0, After(kLimit));
    ASSERT_TRUE(line && line->rfind("listening on ", 0) == 0);

    std::vector<std::string> arguments = {
        "client", line->substr(13), "--connections", std::to_string(connections_), "--rounds", "5", "--json"};
    if (GetParam().connectEx) arguments.push_back("--connect-ex");
    ChildProcess client(EchoProgram(arguments));
    EXPECT_EQ(client.Wait(After(kLimit)), 0);
    const auto output = client.Output();
    ASSERT_EQ(output.size(), 1u);
    const auto outcome = nlohmann::json::parse(output[0]);
    EXPECT_EQ(outcome.value("finished", 0), connections_) << output[0];
    EXPECT_EQ(outcome.value("echoes", 0), 5 * connections_) << output[0];
    EXPECT_EQ(outcome.value("wrong", -1), 0) << output[0];

    // A signal would end Wine itself.
    if (programs_.AreNative()) {
        server.RequestStop();
    } else {
        server.EndInput();
    }
    EXPECT_EQ(server.Wait(After(kLimit)), 0);
    const std::string count = std::to_string(connections_);
    EXPECT_EQ(server.Output().back(), "accepted " + count + " connections, " + count + " at once");
}

}  // namespace
