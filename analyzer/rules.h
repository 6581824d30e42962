// The analyzer's rules: a TOML file read once into a list; the first rule that matches a request decides.
// Rules are immutable once read.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "analyzer/inspection_plan.h"
#include "analyzer/request.h"

/// What is wrong with a rule file: "file:line:column: reason", or without a place what is wrong with all of
/// it.
class RuleError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// How an answer is given. Everything but kAnswer is for demonstrations and tests of the other side.
enum class Behaviour {
    kAnswer,
    kSilent,   ///< never
    kGarbage,  ///< bytes that are no frame
    kClose,    ///< the connection is closed instead
};

enum class RuleAction { kAllow, kRefuse, kRedirect };

struct Verdict {
    RuleAction action = RuleAction::kAllow;
    Endpoint redirect;
    std::uint32_t flags = 0;
    /// The process that asked is to be left alone from now on.
    bool exempt = false;
    Behaviour behaviour = Behaviour::kAnswer;
    std::uint32_t delayMilliseconds = 0;
    /// What becomes of the bytes of a split connection; null: they are passed on.
    std::shared_ptr<const InspectionPlan> plan;
};

struct Network {
    std::uint32_t address = 0;
    std::uint32_t mask = 0;
};

struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
};

/// One rule. A condition that is empty holds for every request; the others must all hold.
struct Rule {
    std::string name;
    /// One bit per operation code.
    std::uint32_t operations = 0;
    std::vector<Network> destinations;
    std::vector<PortRange> ports;
    std::vector<std::uint32_t> processIds;
    std::vector<std::uint32_t> protocols;
    /// Patterns in which * stands for any characters and ? for one.
    std::vector<std::string> users;
    std::vector<std::string> windows;
    std::vector<std::string> signers;
    Verdict verdict;

    bool Matches(const Request& request) const;
};

class RuleSet {
  public:
    /// No rules: everything is allowed.
    RuleSet();

    /// Throws RuleError; also when it can't be read or is no regular file.
    static RuleSet FromFile(const std::string& path);
    /// `name` stands for the file in errors.
    static RuleSet FromText(const std::string& text, const std::string& name);

    /// The first rule that matches, or the default, which is named "default".
    const Rule& Decide(const Request& request) const;

  private:
    friend class RuleReader;

    std::vector<Rule> rules_;
    Rule default_;
};

/// Whether `text` fits a pattern with * and ?.
bool FitsPattern(const std::string& text, const std::string& pattern);

/// "192.0.2.1" in host order; false when it is no address.
bool ParseAddress(const std::string& text, std::uint32_t& address);

/// "192.0.2.1:443".
bool ParseEndpoint(const std::string& text, Endpoint& endpoint);
