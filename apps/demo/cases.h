// What the demo shows and the end-to-end tests check: one entry per case, each with the situation that it
// sets up and the promise that has to hold. A new case is a new entry in cases.cpp and nothing else.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// Messages: a stream, used by a program that lives in a message loop, to a server that echoes. Greeted: a
/// stream on which the server speaks first, and alone.
enum class Transport { Stream, Datagram, Messages, Greeted };

/// Where the port that the application's machine names leads to.
enum class AnalyzerState {
    Running,  ///< the analyzer, with the rules of all cases
    Down,     ///< nobody listens there
};

/// What the servers' logs have to say of the case's path.
enum class Visits {
    NotLookedAt,
    None,      ///< nobody was asked for it
    Complete,  ///< the application has the same bytes as the server
    Broken,    ///< the server was asked, and not all of the answer was taken
};

/// The origin servers, by the names in their answers.
constexpr const char* kAlpha = "alpha";
constexpr const char* kBeta = "beta";
constexpr const char* kEcho = "echo";
/// A server that echoes streams, many at a time.
constexpr const char* kStreamEcho = "stream echo";
/// Any port of this machine: what an application finds there is its own.
constexpr const char* kItself = "itself";
/// A server that says what it is and closes the connection.
constexpr const char* kGreeter = "greeter";
constexpr const char* kGreeting = "SSH-2.0-demo";
/// A server's address at which nobody listens.
constexpr const char* kNobody = "nobody";

/// The user that the application's machine names, unless the case has one of its own.
constexpr const char* kUser = "DEMO\\alice";

/// What the application's machine shows of its process.
struct Identity {
    std::string title;   ///< of its window; empty: it has none
    std::string signer;  ///< of its program; empty: it is not signed
};

struct Case {
    std::string name;

    /// The situation. The destination is a public address that is the case's own; the routes of the
    /// application's machine lead it to the server. "local" stands for the loopback address at which the
    /// server really listens.
    std::string destination;
    std::string server = kAlpha;
    Transport transport = Transport::Stream;
    std::string rule;  ///< what the analyzer does for this destination, in its rule file's language
    std::string user = kUser;
    bool ruleIsForUser = false;  ///< of requests that have no destination
    bool binds = false;          ///< the application binds its socket first
    AnalyzerState analyzer = AnalyzerState::Running;
    bool refuseWithoutAnalyzer = false;
    int requests = 1;             ///< how many the application makes, one after the other
    int clockRate = 1;            ///< how much faster than real time the application's clock runs
    std::string path = "/hello";  ///< what is asked for; a case that looks at `visits` has its own
    int closeAfterBytes = 0;      ///< the application closes once so much has come; 0: when the server does
    std::string program;          ///< not empty: an unmodified program instead, run by qxrun
    std::optional<Identity> identity;  ///< the analyzer is told of it, at the latest with the last request
    int connections = 0;               ///< not 0: instead of that, so many echo a message, all at once

    /// The promise.
    std::string
        answeredBy;  ///< the server that answers every request; empty: every request fails with `error`
    int error = 0;
    bool connects = false;            ///< it is the call behind the connect that fails with `error`
    std::optional<std::string> body;  ///< the first line of each answer; without it the server's name
    int questions = 1;                ///< how often the analyzer is asked about a connect
    std::string verdict;              ///< what it says each time, as its log names it
    std::string redirect;             ///< where it redirects to; empty for other verdicts
    std::string inspected;            ///< what the analyzer did with each split connection; empty: none was
    /// What else the analyzer is told before the close, in order: the operation and the protocol, if any.
    /// Empty: that is not looked at.
    std::vector<std::string> reports;
    bool countsBytes = false;  ///< the bytes that it is told of are those that the server has sent
    Visits visits = Visits::NotLookedAt;
    int leastMilliseconds = 0;  ///< each request takes at least so long on the application's clock
};

/// The destination of a case on a machine whose real servers are behind routes.
constexpr const char* kLocalDestination = "local";

/// The one public address that leads to the server beta, on every machine of the demo.
constexpr const char* kBetaAddress = "203.0.113.200:80";

const std::vector<Case>& Cases();

/// Cases with programs that know nothing of the layer; they need the programs, and native applications.
const std::vector<Case>& ProgramCases();

/// Throws std::runtime_error when there is none of that name.
const Case& CaseNamed(const std::string& name);
