// From a request's frame to the answer's frame: reads the message, asks the rules, writes the message.
// Messages are kept and used again, so that a request costs few allocations. One thread.
#pragma once

#include <cstddef>
#include <vector>

#include "analyzer/frame_handler.h"
#include "analyzer/request.h"
#include "analyzer/request_log.h"
#include "analyzer/rules.h"
#include "messages/analyzer_messages.h"

class Decision : public FrameHandler {
  public:
    /// Both must outlive the decision; `log` may be null.
    Decision(const RuleSet& rules, RequestLog* log) : rules_(rules), log_(log) {}

    /// A frame that is no request closes its connection: nothing after it could be told apart.
    Reply OnFrame(const unsigned char* frame, std::size_t length, std::vector<unsigned char>& out) override;

  private:
    bool ReadRequest(const unsigned char* frame, std::size_t length);
    bool AppendAnswer(const Verdict& verdict, std::vector<unsigned char>& out);

    const RuleSet& rules_;
    RequestLog* log_;
    Request request_;
    LSPAnalyzerMessage requestMessage_;
    LSPAnalyzerMessageResponse answerMessage_;
};
