// qxwindow: an echo client that lives in a message loop: its sockets report to its window. It prints one line
// per echo, and exits with 0 when all came back unchanged, 1 when one failed, 2 for wrong usage.
#include "apps/shared/exchange_report.h"
#include "apps/shared/run_main.h"
#include "apps/shared/winsock_session.h"
#include "apps/window/echo_window.h"

#include <string>

namespace {

constexpr unsigned short kEchoPort = 7;

int Run(CLI::App& app, const std::function<void()>& parse) {
    std::string targetText;
    int repeat = 1;
    bool json = false;
    app.add_option("target", targetText, "A.B.C.D[:PORT][/TEXT]; the text, with its slash, is what is sent")
        ->required();
    app.add_option("--repeat", repeat, "how many connections are made, one after the other")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_flag("--json", json, "print each result as one line of JSON");

    parse();

    const Target target = ParseTarget(targetText, kEchoPort);
    EchoWindow window;
    const WinsockSession winsock;
    bool allEchoed = true;
    for (int round = 0; round < repeat; ++round) {
        const ExchangeResult result = window.Exchange(target.server, target.path);
        PrintResult(target, result, json);
        allEchoed = allEchoed && result.Succeeded();
    }
    return allEchoed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("qxwindow", "Has a text echoed over connections that report to a window.", Run, argc,
                   argv);
}
