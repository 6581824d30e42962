// The program itself: what it prints, writes and returns.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "tests/analyzer/request_frames.h"
#include "tests/analyzer/running_program.h"
#include "tests/analyzer/test_client.h"

namespace {

/// A folder of its own for each test.
class Folder {
  public:
    Folder()
        : path_(std::filesystem::temp_directory_path() /
                ("qxanalyzer-test-" + std::to_string(std::random_device()()))) {
        std::filesystem::create_directories(path_);
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  private:
    const std::filesystem::path path_;
};

std::uint16_t PortIn(const std::string& line) {
    return static_cast<std::uint16_t>(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
}

TEST(AnalyzerProgram, ServesUntilItIsToldToStop) {
    const Folder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nname = \"no web\"\nport = 80\naction = \"refuse\"\n";
    for (const Stop stop : WaysToStop()) {
        RunningProgram program({"--port", "0", "--rules", folder / "rules.toml", "--port-file",
                                folder / "a/b/p_info", "--until-input-ends"});
        const std::string first = program.Line();
        ASSERT_EQ(first.rfind("listening on 127.0.0.1:", 0), 0u) << first;
        const std::uint16_t port = PortIn(first);
        std::ifstream file(folder / "a/b/p_info", std::ios::binary);
        const std::string written{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(written, std::string({static_cast<char>(port & 255), static_cast<char>(port >> 8), 0, 0}));

        TestClient client(port);
        AskedRequest asked;
        asked.port = 80;
        ASSERT_TRUE(client.Send(RequestFrame(asked)));
        const GivenAnswer answer = ReadAnswer(client.Receive(156));
        EXPECT_TRUE(answer.readable);
        EXPECT_EQ(answer.requestId, asked.messageId);
        EXPECT_EQ(answer.action, 1u);
        const std::string line = program.Line();
        EXPECT_NE(line.find("connect process 4321 user \"DEMO\\\\alice\""), std::string::npos) << line;
        EXPECT_NE(line.find("192.0.2.1:80 : refuse (\"no web\")"), std::string::npos) << line;
        program.Tell(stop);
        EXPECT_EQ(program.Status(), 0);
    }
}

TEST(AnalyzerProgram, RefusesWhatItCannotUse) {
    const Folder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nactoin = \"refuse\"\n";
    RunningProgram wrongRules({"--port", "0", "--rules", folder / "rules.toml"});
    EXPECT_NE(wrongRules.Line().find("rules.toml:2:1: there is no key \"actoin\""), std::string::npos);
    EXPECT_EQ(wrongRules.Status(), 2);
    EXPECT_EQ(RunningProgram({"--port", "65536"}).Status(), 2);
    EXPECT_EQ(RunningProgram({"--bogus"}).Status(), 2);
    EXPECT_EQ(RunningProgram({"--rules", ""}).Status(), 2);

    RunningProgram first({"--port", "0"});
    const std::string port = std::to_string(PortIn(first.Line()));
    EXPECT_EQ(RunningProgram({"--port", port}).Status(), 1) << "the port is taken";
}

}  // namespace
