// qxecho: an echo server and its client, both on completion ports as Windows servers are. The client's exit
// status is 0 when every message of every connection came back unchanged, else 1; 2 is wrong usage.
#include "apps/echo/echo_client.h"
#include "apps/echo/echo_server.h"
#include "apps/shared/endpoint.h"
#include "apps/shared/run_main.h"
#include "apps/shared/stop_request.h"
#include "apps/shared/winsock_session.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

int RunServer(unsigned short port, int threads, bool untilInputEnds) {
    StopOnSignals();
    if (untilInputEnds) StopWhenInputEnds();
    const WinsockSession winsock;
    EchoServer server(port, threads);
    std::cout << "listening on " << FormatEndpoint(LoopbackEndpoint(server.Port())) << std::endl;
    while (!StopRequested())
        std::this_thread::sleep_for(std::chrono::microseconds(kStopPollMicroseconds));
    const EchoServer::Counts counts = server.GetCounts();
    std::cout << "accepted " << counts.accepted << " connections, " << counts.mostOpen << " at once"
              << std::endl;
    return 0;
}

int RunClient(const std::string& serverText, const EchoLoad& load, bool step, bool json) {
    const auto server = ParseEndpoint(serverText, 0);
    if (!server) throw std::runtime_error("\"" + serverText + "\" is not A.B.C.D:PORT");
    const WinsockSession winsock;
    const EchoOutcome outcome = RunEchoLoad(*server, load, [step] {
        std::string line;
        if (!step) return;
        std::cout << "connected" << std::endl;
        std::getline(std::cin, line);
    });
    const bool passed = outcome.finished == load.connections && outcome.wrong == 0;
    if (json) {
        std::cout << nlohmann::ordered_json{
            {"connections", load.connections},   {"connected", outcome.connected},
            {"finished", outcome.finished},      {"echoes", outcome.echoes},
            {"wrong", outcome.wrong},            {"error", outcome.firstError},
            {"elapsed_ms", static_cast<unsigned long>(outcome.elapsedMilliseconds)},
            {"process_id", static_cast<unsigned long>(GetCurrentProcessId())},
        } << std::endl;
    } else {
        std::cout << outcome.finished << " of " << load.connections
                  << " connections got all their echoes: " << outcome.echoes << " right, " << outcome.wrong
                  << " wrong, " << outcome.elapsedMilliseconds << " ms" << std::endl;
        if (outcome.firstError != 0) {
            std::cout << "first failure: " << DescribeWinsockError(outcome.firstError) << std::endl;
        }
    }
    return passed ? 0 : 1;
}

int Run(CLI::App& app, const std::function<void()>& parse) {
    app.require_subcommand(1);

    unsigned short port = 0;
    int threads = 2;
    bool untilInputEnds = false;
    CLI::App* const server = app.add_subcommand("server", "serve until interrupted");
    server->add_option("--port", port, "port on 127.0.0.1; 0: a free one")->capture_default_str();
    server->add_option("--threads", threads, "workers on the completion port")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    server->add_flag("--until-input-ends", untilInputEnds, "stop at the end of standard input too");

    std::string serverText;
    EchoLoad load;
    bool step = false;
    bool json = false;
    CLI::App* const client = app.add_subcommand("client", "open connections and compare echoes");
    client->add_option("server", serverText, "A.B.C.D:PORT")->required();
    client->add_option("--connections", load.connections, "how many are open at once")
        ->check(CLI::Range(1, 20000))
        ->capture_default_str();
    client->add_option("--rounds", load.rounds, "messages per connection")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    client->add_option("--size", load.messageBytes, "bytes of a message")
        ->check(CLI::Range(std::size_t{1}, kMaxMessageBytes))
        ->capture_default_str();
    client->add_flag("--connect-ex", load.connectEx, "connect with ConnectEx, all at the same time");
    client->add_option("--timeout", load.timeoutMilliseconds, "longest wait in milliseconds")
        ->capture_default_str();
    client->add_flag("--step", step,
                     "when all are connected, print \"connected\" and wait for a line of input");
    client->add_flag("--json", json, "print the outcome as one line of JSON");

    parse();

    return server->parsed() ? RunServer(port, threads, untilInputEnds)
                            : RunClient(serverText, load, step, json);
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("qxecho", "Echoes bytes, many connections at once, on completion ports.", Run, argc, argv);
}
