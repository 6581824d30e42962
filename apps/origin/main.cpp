// qxorigin: the servers that the client talks to in the demo and the tests, written to the Winsock API. One
// process can be several servers, each with a name that its answers carry. A server prints "listening on
// 127.0.0.1:PORT" when it is ready, in the order of the names.
#include "apps/origin/datagram_echo.h"
#include "apps/origin/http_server.h"
#include "apps/shared/endpoint.h"
#include "apps/shared/run_main.h"
#include "apps/shared/stop_request.h"

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct ServerName {
    std::string name;
    unsigned short port;
};

/// Reads "NAME" or "NAME@PORT".
ServerName ParseServerName(const std::string& text, unsigned short defaultPort) {
    const std::size_t at = text.find('@');
    if (at == std::string::npos) return {text, defaultPort};
    const auto port = ParsePort(text.substr(at + 1));
    if (!port) throw std::runtime_error("\"" + text + "\" has no port behind its @");
    return {text.substr(0, at), *port};
}

/// Opens a socket per name with `open`, announcing each port.
template <typename Open>
void OpenAll(const std::vector<ServerName>& servers, Open open) {
    for (const ServerName& server : servers) {
        const unsigned short port = open(server.name, server.port);
        std::cout << "listening on " << FormatEndpoint(LoopbackEndpoint(port)) << std::endl;
    }
}

int Run(CLI::App& app, const std::function<void()>& parse) {
    std::vector<std::string> names = {"origin"};
    unsigned short defaultPort = 0;
    bool datagrams = false;
    bool untilInputEnds = false;
    bool log = false;
    std::string greeting;

    app.add_option("--name", names, "NAME or NAME@PORT; several make several servers")->capture_default_str();
    app.add_option("--port", defaultPort, "port of names without one; 0: a free one")->capture_default_str();
    app.add_flag("--udp", datagrams, "echo datagrams instead of serving HTTP");
    app.add_flag("--log", log, "print a line of JSON for every HTTP answer that has ended");
    app.add_option("--greeting", greeting, "say this line to every client instead of answering requests");
    app.add_flag("--until-input-ends", untilInputEnds, "stop at the end of standard input too");

    parse();

    std::vector<ServerName> servers;
    servers.reserve(names.size());
    for (const std::string& name : names)
        servers.push_back(ParseServerName(name, defaultPort));

    StopOnSignals();
    if (untilInputEnds) StopWhenInputEnds();
    const WinsockSession winsock;
    if (datagrams) {
        DatagramEcho echo;
        OpenAll(servers, [&](const std::string& name, unsigned short port) { return echo.Bind(name, port); });
        echo.Serve();
    } else {
        HttpServer http(log);
        if (!greeting.empty()) http.Greet(greeting);
        OpenAll(servers,
                [&](const std::string& name, unsigned short port) { return http.Listen(name, port); });
        http.Serve();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("qxorigin", "Answers HTTP/1.0 requests, or echoes datagrams, with its name.", Run, argc,
                   argv);
}
