// The program itself: what it prints, writes and returns.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/analyzer/request_frames.h"
#include "tests/analyzer/test_client.h"

namespace {

/// A folder of its own for each test.
class Folder {
  public:
    Folder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qxanalyzer-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/// The running program, with its standard output (and error) in a pipe.
class Program {
  public:
    explicit Program(std::vector<std::string> arguments) {
        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) std::abort();
        arguments.insert(arguments.begin(), QX_ANALYZER);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        id_ = ::fork();
        if (id_ == 0) {
            ::dup2(pipe[1], 1);
            ::dup2(pipe[1], 2);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(pipe[1]);
        output_ = ::fdopen(pipe[0], "r");
    }
    ~Program() {
        if (id_ > 0) {
            ::kill(id_, SIGKILL);
            ::waitpid(id_, nullptr, 0);
        }
        std::fclose(output_);
    }

    std::string Line() {
        char line[8192];
        return std::fgets(line, sizeof(line), output_) != nullptr ? line : "";
    }

    void Signal(int number) { ::kill(id_, number); }

    int Status() {
        int status = 0;
        ::waitpid(id_, &status, 0);
        id_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    pid_t id_ = 0;
    std::FILE* output_ = nullptr;
};

std::uint16_t PortIn(const std::string& line) {
    return static_cast<std::uint16_t>(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
}

TEST(AnalyzerProgram, ServesUntilItIsToldToStop) {
    const Folder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nname = \"no web\"\nport = 80\naction = \"refuse\"\n";
    for (const int signal : {SIGTERM, SIGINT}) {
        Program program(
            {"--port", "0", "--rules", folder / "rules.toml", "--port-file", folder / "a/b/p_info"});
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
        program.Signal(signal);
        EXPECT_EQ(program.Status(), 0);
    }
}

TEST(AnalyzerProgram, RefusesWhatItCannotUse) {
    const Folder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nactoin = \"refuse\"\n";
    Program wrongRules({"--port", "0", "--rules", folder / "rules.toml"});
    EXPECT_NE(wrongRules.Line().find("rules.toml:2:1: there is no key \"actoin\""), std::string::npos);
    EXPECT_EQ(wrongRules.Status(), 2);
    EXPECT_EQ(Program({"--port", "65536"}).Status(), 2);
    EXPECT_EQ(Program({"--bogus"}).Status(), 2);

    Program first({"--port", "0"});
    const std::string port = std::to_string(PortIn(first.Line()));
    EXPECT_EQ(Program({"--port", port}).Status(), 1) << "the port is taken";
}

}  // namespace
