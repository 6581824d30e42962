// Programs that nobody here wrote the networking of, run by the launcher through the shipped DLL: the
// system's own HTTP libraries, asked by an analyzer and answered by servers of this test.
#include <winsock2.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tests/support/connect_fixture.h"
#include "tests/support/loopback_stream.h"
#include "tests/support/scripted_analyzer.h"

namespace {

constexpr std::uint32_t kBlock = 1;
constexpr std::uint32_t kRedirect = 2;

/// Answers every connection with one response.
class WebServer {
  public:
    explicit WebServer(std::string body) : body_(std::move(body)), thread_([this] { Serve(); }) {}
    ~WebServer() {
        listener_.Interrupt();
        thread_.join();
    }
    std::uint16_t Port() const { return listener_.Port(); }
    int Served() const { return served_; }

  private:
    void Serve() {
        LoopbackStream stream;
        while (listener_.Accept(stream)) {
            std::string request;
            char part[256];
            while (request.find("\r\n\r\n") == std::string::npos) {
                const std::size_t count = stream.ReadSome(part, sizeof part);
                if (count == 0) break;
                request.append(part, count);
            }
            const std::string answer =
                "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(body_.size()) +
                "\r\n\r\n" + body_;
            ++served_;
            stream.WriteAll(answer.data(), answer.size());
            stream = LoopbackStream();
        }
    }

    const std::string body_;
    LoopbackListener listener_;
    std::atomic<int> served_{0};
    std::thread thread_;
};

std::filesystem::path ProgramFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH - 1);
    return std::filesystem::path(path).parent_path();
}

class UnmodifiedProgram : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        folder_ =
            std::filesystem::temp_directory_path() / ("qx-launch-" + std::to_string(GetCurrentProcessId()));
        std::filesystem::create_directories(folder_ / "VantrexSoftware" / "Talvessa");
        const std::uint32_t port = analyzer_.Port();
        std::ofstream(folder_ / "VantrexSoftware" / "Talvessa" / "p_info", std::ios::binary)
            .write(reinterpret_cast<const char*>(&port), sizeof port);
        std::ofstream machine(folder_ / "machine.toml");
        machine << "[catalog]\nlayer = \"default\"\n[folders]\ncommon_app_data = '" << folder_.string()
                << "'\n[user]\nname = 'DEMO\\alice'\n";
        AddRoute(machine, "203.0.113.10:80", server_.Port());
        AddRoute(machine, "198.51.100.20:80", other_.Port());
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    static void AddRoute(std::ofstream& machine, const char* destination, std::uint16_t port) {
        machine << "[[routes]]\ndestination = \"" << destination << "\"\ntarget = \"127.0.0.1:" << port
                << "\"\n";
    }

    /// What the client printed, asking the public address.
    std::string Ask() {
        const std::string output = (folder_ / "output").string();
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        const HANDLE file = CreateFileA(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited,
                                        CREATE_ALWAYS, 0, nullptr);
        SetEnvironmentVariableA("QX_MACHINE", (folder_ / "machine.toml").string().c_str());
        std::string command = "\"" + (ProgramFolder() / "qxlaunch.exe").string() + "\" \"" +
                              (ProgramFolder() / "web_client.exe").string() + "\" " + GetParam() +
                              " http://203.0.113.10/hello";
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = startup.hStdError = file;
        PROCESS_INFORMATION program{};
        EXPECT_TRUE(CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &program))
            << GetLastError();
        EXPECT_EQ(WaitForSingleObject(program.hProcess, 40000), static_cast<DWORD>(WAIT_OBJECT_0));
        CloseHandle(program.hThread);
        CloseHandle(program.hProcess);
        CloseHandle(file);
        SetEnvironmentVariableA("QX_MACHINE", nullptr);
        std::ifstream text(output);
        return std::string(std::istreambuf_iterator<char>(text), {});
    }

    std::filesystem::path folder_;
    ScriptedAnalyzer analyzer_;
    WebServer server_{"hello from the server"};
    WebServer other_{"hello from elsewhere"};
};

TEST_P(UnmodifiedProgram, IsAllowedRefusedAndRedirected) {
    EXPECT_EQ(Ask().rfind("200 hello from the server", 0), 0u);
    EXPECT_EQ(server_.Served(), 1);
    ASSERT_GE(analyzer_.Requests().size(), 1u);
    const SeenRequest request = analyzer_.Requests().front();
    EXPECT_EQ(request.Destination(), "203.0.113.10:80");
    EXPECT_EQ(request.userName, "DEMO\\alice");

    ScriptedAnswer answer;
    answer.action = kBlock;
    analyzer_.SetScript(AnswerInOrder({answer}));
    EXPECT_EQ(Ask().rfind("failed", 0), 0u);
    EXPECT_EQ(server_.Served(), 1);

    answer.action = kRedirect;
    answer.redirectTo = "198.51.100.20:80";
    analyzer_.SetScript(AnswerInOrder({answer}));
    EXPECT_EQ(Ask().rfind("200 hello from elsewhere", 0), 0u);
    EXPECT_EQ(server_.Served(), 1);
    EXPECT_EQ(other_.Served(), 1);
}

INSTANTIATE_TEST_SUITE_P(Through, UnmodifiedProgram, ::testing::Values("winhttp", "wininet"));

}  // namespace
