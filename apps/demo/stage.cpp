// Processes and files of the stage; see the header.
#include "apps/demo/stage.h"

#include "apps/demo/machine.h"

#include <stdlib.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// Generous, since they only bound a failure: a loaded machine must never look like one.
constexpr auto kStartLimit = 30s;
constexpr auto kClientLimit = 60s;
constexpr auto kStopLimit = 10s;

/// Ports that the port file may name; a kernel can be set up to hand out others.
constexpr int kLeastAnalyzerPort = 1025;
constexpr int kMostAnalyzerPort = 64999;
constexpr int kPortAttempts = 20;

/// The command of a program that is native in any case.
std::vector<std::string> NativeCommand(const std::string& program) {
    return {(ProgramDirectory() / program).string()};
}

fs::path MakeTemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "qxdemo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory");
    return pattern;
}

/// The address behind "listening on" in a server's `index`-th line.
std::string ListeningAddress(ChildProcess* server, std::size_t index, const std::string& program) {
    const std::string prefix = "listening on ";
    const auto line = server->Line(index, After(kStartLimit));
    if (!line) {
        const int status = server->Wait(After(0s));
        throw std::runtime_error(program + " did not start: exit status " + std::to_string(status));
    }
    if (line->rfind(prefix, 0) != 0)
        throw std::runtime_error(program + " printed \"" + *line + "\" at its start");
    return line->substr(prefix.size());
}

ClientLine ParseClientLine(const std::string& line) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object()) throw std::runtime_error("the application printed \"" + line + "\"");
    ClientLine parsed;
    parsed.failedStep = json.value("failed", "");
    parsed.error = json.value("error", 0);
    parsed.peer = json.value("peer", "");
    parsed.status = json.value("status", 0);
    parsed.bytes = json.value("bytes", std::uint64_t(0));
    parsed.body = json.value("body", "");
    parsed.checksum = json.value("checksum", "");
    parsed.elapsedMilliseconds = json.value("elapsed_ms", 0);
    parsed.processId = json.value("process_id", 0);
    if (json.contains("echoes"))
        parsed.body = std::to_string(json.value("finished", 0)) + " of " +
                      std::to_string(json.value("connections", 0)) + " connections echoed";
    return parsed;
}

/// How qxrun runs a program that prints the page behind a URL, which comes last.
std::vector<std::string> ProgramCommand(const std::string& program) {
    if (program == "curl") return {"--", program, "-sS"};
    if (program == "wget") return {"--", program, "-nv", "-O-", "--tries=1"};
    return {"--", "/usr/bin/" + program, "-c",
            "import sys, urllib.request as r; print(r.urlopen(sys.argv[1]).read().decode())"};
}

/// Such a program tells little of itself: what it printed, or that it failed.
ClientLine LineOfProgram(int exitStatus, const std::vector<std::string>& output) {
    ClientLine line;
    if (exitStatus != 0) line.failedStep = "connect";
    if (!output.empty()) line.body = output.front();
    return line;
}

}  // namespace

Stage::Stage(const std::vector<Case>& cases, ApplicationPrograms applications)
    : applications_(std::move(applications)), directory_(MakeTemporaryDirectory()) {
    try {
        StartServers();
        WriteRules(cases);
        StartAnalyzer();
    } catch (const std::exception& error) {
        const std::string details = ErrorOutput();
        servers_.clear();
        fs::remove_all(directory_);
        throw std::runtime_error(error.what() + (details.empty() ? "" : "\n" + details));
    }
}

Stage::~Stage() {
    for (const auto& server : servers_)
        server->RequestStop();
    if (analyzer_) analyzer_->RequestStop();
    for (const auto& server : servers_)
        server->Wait(After(kStopLimit));
    if (analyzer_) analyzer_->Wait(After(kStopLimit));
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

void Stage::StartServers() {
    auto http = StartProgram(NativeCommand("qxorigin"), {"--log", "--name", kAlpha, "--name", kBeta}, {},
                             "qxorigin-http");
    auto datagram = StartProgram(NativeCommand("qxorigin"), {"--udp", "--name", kEcho}, {}, "qxorigin-udp");
    auto echo = StartProgram(NativeCommand("qxecho"), {"server"}, {}, "qxecho");
    auto greeter = StartProgram(NativeCommand("qxorigin"), {"--name", kGreeter, "--greeting", kGreeting}, {},
                                "qxorigin-greeter");
    serverAddresses_[kGreeter] = ListeningAddress(greeter.get(), 0, "qxorigin");
    servers_.push_back(std::move(greeter));
    serverAddresses_[kStreamEcho] = ListeningAddress(echo.get(), 0, "qxecho");
    serverAddresses_[kItself] = "127.0.0.1:0";
    serverAddresses_[kNobody] = "127.0.0.1:" + std::to_string(closedPort_.Number());
    servers_.push_back(std::move(echo));
    serverAddresses_[kAlpha] = ListeningAddress(http.get(), 0, "qxorigin");
    serverAddresses_[kBeta] = ListeningAddress(http.get(), 1, "qxorigin");
    serverAddresses_[kEcho] = ListeningAddress(datagram.get(), 0, "qxorigin");
    servers_.push_back(std::move(http));
    servers_.push_back(std::move(datagram));
}

void Stage::WriteRules(const std::vector<Case>& cases) const {
    std::ofstream file(directory_ / "rules.toml");
    // The analyzer takes no file without a rule; some scenes have none of their own.
    file << "[default]\naction = 'allow'\n\n";
    for (const Case& scene : cases) {
        if (scene.rule.empty()) continue;
        const std::string address = scene.destination.substr(0, scene.destination.find(':'));
        file << "[[rule]]\nname = '" << scene.name << "'\n"
             << (scene.ruleIsForUser ? "user = '" + scene.user : "destination = '" + address) << "'\n"
             << scene.rule << "\n\n";
    }
}

void Stage::StartAnalyzer() {
    for (int attempt = 0; attempt < kPortAttempts; ++attempt) {
        auto analyzer = StartProgram(NativeCommand("qxanalyzer"),
                                     {"--port", std::to_string(analyzerPort_), "--json", "--rules",
                                      (directory_ / "rules.toml").string()},
                                     {}, "qxanalyzer");
        const std::string address = ListeningAddress(analyzer.get(), 0, "qxanalyzer");
        const int port = std::stoi(address.substr(address.find(':') + 1));
        if (port < kLeastAnalyzerPort || port > kMostAnalyzerPort) continue;
        analyzerPort_ = static_cast<unsigned short>(port);
        analyzer_ = std::move(analyzer);
        return;
    }
    throw std::runtime_error("no usable port for the analyzer");
}

void Stage::StopAnalyzer() {
    if (!analyzer_) return;
    analyzer_->RequestStop();
    const int status = analyzer_->Wait(After(kStopLimit));
    if (status != 0) throw std::runtime_error("the analyzer ended with status " + std::to_string(status));
    for (const std::string& line : analyzer_->Output()) {
        if (const auto question = ParseQuestion(line)) questions_.push_back(*question);
    }
    analyzer_.reset();
}

const std::vector<Question>& Stage::AllQuestions() {
    StopAnalyzer();
    return questions_;
}

const std::vector<Visit>& Stage::AllVisits() {
    for (const auto& server : servers_)
        server->RequestStop();
    for (const auto& server : servers_) {
        server->Wait(After(kStopLimit));
        for (const std::string& line : server->Output()) {
            if (const auto visit = ParseVisit(line)) visits_.push_back(*visit);
        }
    }
    servers_.clear();
    return visits_;
}

std::string Stage::DestinationOf(const Case& scene) const {
    return scene.destination == kLocalDestination ? serverAddresses_.at(scene.server) : scene.destination;
}

std::unique_ptr<ChildProcess> Stage::StartApplication(const Case& scene, const std::string& program,
                                                      const std::vector<std::string>& arguments) {
    MachineDescription machine;
    machine.analyzerPort = scene.analyzer == AnalyzerState::Down ? closedPort_.Number() : analyzerPort_;
    machine.refuseWithoutAnalyzer = scene.refuseWithoutAnalyzer;
    machine.user = scene.user;
    if (scene.identity) {
        machine.windowTitle = scene.identity->title;
        machine.signer = scene.identity->signer;
    }
    machine.root = applications_.PathFor("");
    machine.routes[kBetaAddress] = serverAddresses_.at(kBeta);
    if (scene.destination != kLocalDestination) {
        machine.routes[scene.destination] = serverAddresses_.at(scene.server);
    }
    const std::string name = "machine-" + std::to_string(++machines_);
    const fs::path file = WriteMachine(machine, directory_ / name);
    return StartProgram(
        applications_.Command(program), arguments,
        {{"QX_MACHINE", applications_.PathFor(file)}, {"QX_CLOCK_SCALE", std::to_string(scene.clockRate)}},
        name);
}

std::unique_ptr<ChildProcess> Stage::StartClient(const Case& scene,
                                                 const std::vector<std::string>& arguments) {
    if (!scene.program.empty()) {
        std::vector<std::string> command = ProgramCommand(scene.program);
        command.push_back("http://" + DestinationOf(scene) + scene.path);
        return StartApplication(scene, "qxrun", command);
    }
    if (scene.connections != 0) {
        return StartApplication(scene, "qxecho",
                                {"client", DestinationOf(scene), "--json", "--rounds", "5", "--connections",
                                 std::to_string(scene.connections)});
    }
    std::vector<std::string> all = {DestinationOf(scene) + scene.path, "--json", "--repeat",
                                    std::to_string(scene.requests)};
    if (scene.closeAfterBytes != 0)
        all.insert(all.end(), {"--close-after", std::to_string(scene.closeAfterBytes)});
    if (scene.transport == Transport::Datagram) all.emplace_back("--datagram");
    if (scene.transport == Transport::Greeted) all.emplace_back("--greeting");
    if (scene.binds) all.emplace_back("--bind");
    all.insert(all.end(), arguments.begin(), arguments.end());
    return StartApplication(scene, scene.transport == Transport::Messages ? "qxwindow" : "qxhttp", all);
}

ClientRun Stage::Finish(const Case& scene, ChildProcess* client) {
    ClientRun run;
    run.destination = DestinationOf(scene);
    run.exitStatus = client->Wait(After(kClientLimit));
    if (!scene.program.empty()) {
        run.lines.push_back(LineOfProgram(run.exitStatus, client->Output()));
    } else {
        for (const std::string& line : client->Output())
            run.lines.push_back(ParseClientLine(line));
    }
    if (applications_.AreNative()) {
        run.processId = client->Id();
    } else if (!run.lines.empty()) {
        run.processId = run.lines.front().processId;
    }
    return run;
}

ClientRun Stage::Play(const Case& scene, const std::function<void(pid_t processId)>& started) {
    const auto begin = std::chrono::steady_clock::now();
    const auto client = StartClient(scene, {});
    if (started) started(client->Id());
    ClientRun run = Finish(scene, client.get());
    run.realTime =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    return run;
}

std::unique_ptr<ChildProcess> Stage::StartProgram(std::vector<std::string> command,
                                                  const std::vector<std::string>& arguments,
                                                  const std::map<std::string, std::string>& environment,
                                                  const std::string& name) const {
    ChildOptions options;
    options.arguments = std::move(command);
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    // A machine or clock that this process was given is not the children's.
    options.environment = {{"QX_MACHINE", ""}, {"QX_CLOCK_SCALE", ""}};
    for (const auto& [key, value] : environment)
        options.environment[key] = value;
    options.errorFile = directory_ / (name + ".err");
    return std::make_unique<ChildProcess>(options);
}

std::string Stage::ErrorOutput() const {
    std::ostringstream all;
    for (const auto& entry : fs::directory_iterator(directory_)) {
        if (entry.path().extension() != ".err" || entry.file_size() == 0) continue;
        all << entry.path().stem().string() << ":\n" << std::ifstream(entry.path()).rdbuf();
    }
    return all.str();
}
