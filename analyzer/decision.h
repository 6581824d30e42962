// From a request to the frame of its answer: asks the rules and writes the message. Messages are kept and
// used again, so that a request costs few allocations. One thread.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "analyzer/frame_handler.h"
#include "analyzer/request.h"
#include "analyzer/request_log.h"
#include "analyzer/request_reader.h"
#include "analyzer/rules.h"
#include "analyzer/traffic_summary.h"
#include "messages/analyzer_messages.h"

class Decision : public FrameHandlers {
  public:
    /// Both must outlive the decision; `log` may be null.
    Decision(const RuleSet& rules, RequestLog* log) : rules_(rules), log_(log) {}

    std::unique_ptr<FrameHandler> OnConnection() override;

    /// The reader that all connections share.
    RequestReader& Reader() { return reader_; }
    /// May be null.
    RequestLog* Log() { return log_; }

    /// Of the connections that have ended.
    TrafficSummary& Summary() { return summary_; }

    /// Decides about the request that was read last and logs it. The rule is valid until rules are read
    /// again.
    const Rule& Decide(Request& request);

    /// Appends the answer that the rule gives to a request.
    Reply Answer(const Request& request, const Rule& rule, std::vector<unsigned char>& out);

  private:
    bool AppendAnswer(const Request& request, const Verdict& verdict, std::vector<unsigned char>& out);

    const RuleSet& rules_;
    RequestLog* log_;
    RequestReader reader_;
    TrafficSummary summary_;
    LSPAnalyzerMessageResponse answerMessage_;
};
