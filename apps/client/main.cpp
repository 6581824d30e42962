// qxhttp: a small HTTP client, written to the Winsock API as any Windows program would be. It asks each
// server it is given, prints one line per request, and exits with 0 when all were answered, 1 when one
// failed, 2 for wrong usage.
#include "apps/client/exchange.h"
#include "apps/shared/exchange_report.h"
#include "apps/shared/run_main.h"
#include "apps/shared/winsock_session.h"

#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr unsigned short kHttpPort = 80;

int Run(CLI::App& app, const std::function<void()>& parse) {
    std::vector<std::string> targetTexts;
    ExchangeOptions options;
    int repeat = 1;
    bool json = false;
    bool step = false;

    app.add_option("target", targetTexts,
                   "http://A.B.C.D[:PORT][/PATH]; with --datagram the path is what is sent")
        ->required();
    app.add_flag("--nonblocking", options.nonblocking, "connect without blocking and wait with select");
    app.add_flag("--datagram", options.datagram, "exchange one datagram instead of an HTTP request");
    app.add_flag("--bind", options.bind, "bind the socket before it is connected");
    app.add_flag("--greeting", options.greeting, "send nothing, and take what the server says by itself");
    app.add_option("--close-after", options.closeAfterBytes,
                   "close the connection once so many bytes of the answer have come");
    app.add_option("--timeout", options.timeoutMilliseconds, "limit of each wait in milliseconds")
        ->capture_default_str();
    app.add_option("--repeat", repeat, "how often each target is asked, one after the other")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_flag("--json", json, "print each result as one line of JSON");
    app.add_flag("--step", step, "wait for a line on standard input before each request but the first");

    parse();

    std::vector<Target> targets;
    targets.reserve(targetTexts.size());
    for (const std::string& text : targetTexts)
        targets.push_back(ParseTarget(text, kHttpPort));

    const WinsockSession winsock;
    bool allAnswered = true;
    bool first = true;
    for (int round = 0; round < repeat; ++round) {
        for (const Target& target : targets) {
            std::string line;
            if (step && !first && !std::getline(std::cin, line)) return 1;
            first = false;
            const ExchangeResult result = Exchange(target.server, target.path, options);
            PrintResult(target, result, json);
            allAnswered = allAnswered && result.Succeeded();
        }
    }
    return allAnswered ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("qxhttp", "Asks HTTP servers, or exchanges a datagram with them.", Run, argc, argv);
}
