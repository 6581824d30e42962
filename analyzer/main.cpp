// qxanalyzer: answers the layer's requests by rules from a file, and writes what it was asked. It serves
// demos, tests and people who write an analyzer of their own. Ends with status 0 when it is told to, 1 when
// it can't start, 2 on wrong arguments or a wrong rule file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "analyzer/decision.h"
#include "analyzer/line_writer.h"
#include "analyzer/port_file.h"
#include "analyzer/program_signals.h"
#include "analyzer/request_log.h"
#include "analyzer/rules.h"
#include "analyzer/server.h"

namespace {

/// Stops the server at the end of standard input, if that comes before the server's own.
class InputWatch {
  public:
    explicit InputWatch(Server* server) : shared_(std::make_shared<Shared>()) {
        shared_->server = server;
        // Detached: it may wait for input for ever.
        std::thread([shared = shared_] {
            while (std::getchar() != EOF) {
            }
            const std::lock_guard<std::mutex> hold(shared->lock);
            if (shared->server != nullptr) shared->server->Stop();
        }).detach();
    }
    InputWatch(const InputWatch&) = delete;
    InputWatch& operator=(const InputWatch&) = delete;
    ~InputWatch() {
        const std::lock_guard<std::mutex> hold(shared_->lock);
        shared_->server = nullptr;
    }

  private:
    struct Shared {
        std::mutex lock;  ///< guards server, which lives as long as it is set
        Server* server = nullptr;
    };
    std::shared_ptr<Shared> shared_;
};

struct Options {
    std::uint16_t port = 48191;
    std::string portFile;
    std::string rules;
    bool json = false;
    bool quiet = false;
    bool untilInputEnds = false;
};

std::string AsNote(const std::string& text) {
    return "qxanalyzer: " + text;
}

/// Standard output and standard error while the server runs, neither of which it waits for.
struct Outputs {
    explicit Outputs(LogFormat format)
        : log(DescriptorOutput(1), [format](std::size_t count) { return DroppedLine(format, count); }),
          notes(DescriptorOutput(2),
                [](std::size_t count) { return AsNote(DroppedLine(LogFormat::kReadable, count)); }) {}

    LineWriter log;
    LineWriter notes;
};

/// What was read before stays when the file can't be used: rules that somebody is just writing are no reason
/// to let everything through.
void ReadRulesAgain(const std::string& path, RuleSet* rules, LineWriter* notes) {
    if (path.empty()) return notes->Write(AsNote("there is no rule file to read again"));
    try {
        *rules = RuleSet::FromFile(path);
        notes->Write(AsNote("the rules were read again"));
    } catch (const std::exception& error) {
        notes->Write(AsNote(std::string(error.what()) + "; the rules before are kept"));
    }
}

void Serve(const Options& options, RuleSet rules) {
    const LogFormat format = options.json ? LogFormat::kJson : LogFormat::kReadable;
    Outputs outputs(format);
    RequestLog log(&outputs.log, format);
    Decision decision(rules, options.quiet ? nullptr : &log);
    {
        Server server(options.port, decision, ServerLimits(),
                      [&outputs](const std::string& text) { outputs.notes.Write(AsNote(text)); });
        const ProgramSignals signals(&server);
        std::optional<InputWatch> input;
        if (options.untilInputEnds) input.emplace(&server);

        if (!options.portFile.empty()) WritePortFile(options.portFile, server.Port());
        outputs.log.Write("listening on 127.0.0.1:" + std::to_string(server.Port()));
        while (server.Run())
            ReadRulesAgain(options.rules, &rules, &outputs.notes);
    }
    // Its connections have ended with the server.
    const TrafficSummary& summary = decision.Summary();
    for (const std::string& line : options.json ? summary.JsonLines() : summary.Table())
        outputs.log.Write(line);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kCannotStart = 1;
    constexpr int kWrongInput = 2;

    Options options;
    // As from a variable that isn't set: nobody means the default by it.
    const CLI::Validator named(
        [](const std::string& path) { return path.empty() ? std::string("names no file") : std::string(); },
        "FILE");
    CLI::App app("Answers the layer's requests about connections by rules from a file.");
    app.add_option("--port", options.port, "port on 127.0.0.1; 0 takes any free one")->capture_default_str();
    app.add_option("--port-file", options.portFile, "write the port here, as 4 little-endian bytes")
        ->check(named);
    app.add_option("--rules", options.rules, "rule file (TOML); without it everything is allowed")
        ->check(named);
    app.add_flag("--json", options.json, "one JSON object per request instead of a readable line");
    app.add_flag("--quiet", options.quiet, "no line per request");
    app.add_flag("--until-input-ends", options.untilInputEnds, "stop at the end of standard input too");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongInput;
    }

    try {
        Serve(options, options.rules.empty() ? RuleSet() : RuleSet::FromFile(options.rules));
        return 0;
    } catch (const RuleError& error) {
        std::fprintf(stderr, "%s\n", AsNote(error.what()).c_str());
        return kWrongInput;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", AsNote(error.what()).c_str());
        return kCannotStart;
    }
}
