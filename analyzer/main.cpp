// qxanalyzer: answers the layer's requests by rules from a file, and writes what it was asked. It serves
// demos, tests and people who write an analyzer of their own. Ends with status 0 on SIGINT and SIGTERM, 1
// when it can't start, 2 on wrong arguments or a wrong rule file.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>

#include "analyzer/decision.h"
#include "analyzer/port_file.h"
#include "analyzer/request_log.h"
#include "analyzer/rules.h"
#include "analyzer/server.h"

namespace {

std::atomic<Server*> RunningServer{nullptr};

void StopOnSignal(int) {
    if (Server* server = RunningServer.load()) server->Stop();
}

struct Options {
    std::uint16_t port = 48191;
    std::string portFile;
    std::string rules;
    bool json = false;
    bool quiet = false;
};

void Note(const std::string& text) {
    std::fprintf(stderr, "qxanalyzer: %s\n", text.c_str());
}

void Serve(const Options& options, const RuleSet& rules) {
    RequestLog log(stdout, options.json ? LogFormat::kJson : LogFormat::kReadable);
    Decision decision(rules, options.quiet ? nullptr : &log);
    Server server(options.port, decision, ServerLimits(), Note);

    RunningServer = &server;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, StopOnSignal);
    std::signal(SIGTERM, StopOnSignal);

    if (!options.portFile.empty()) WritePortFile(options.portFile, server.Port());
    std::printf("listening on 127.0.0.1:%u\n", static_cast<unsigned>(server.Port()));
    std::fflush(stdout);
    server.Run();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    RunningServer = nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kCannotStart = 1;
    constexpr int kWrongInput = 2;

    Options options;
    CLI::App app("Answers the layer's requests about connections by rules from a file.");
    app.add_option("--port", options.port, "port on 127.0.0.1; 0 takes any free one")->capture_default_str();
    app.add_option("--port-file", options.portFile, "write the port here, as 4 little-endian bytes");
    app.add_option("--rules", options.rules, "rule file (TOML); without it everything is allowed");
    app.add_flag("--json", options.json, "one JSON object per request instead of a readable line");
    app.add_flag("--quiet", options.quiet, "no line per request");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongInput;
    }

    try {
        const RuleSet rules = options.rules.empty() ? RuleSet() : RuleSet::FromFile(options.rules);
        Serve(options, rules);
        return 0;
    } catch (const RuleError& error) {
        Note(error.what());
        return kWrongInput;
    } catch (const std::exception& error) {
        Note(error.what());
        return kCannotStart;
    }
}
