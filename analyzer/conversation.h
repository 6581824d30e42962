// The talk on one connection: questions go to the rules; what the layer tells of a split connection goes by
// the plan that came with the answer to its connect.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analyzer/decision.h"
#include "analyzer/frame_handler.h"
#include "analyzer/inspection.h"
#include "analyzer/request.h"
#include "analyzer/traffic_summary.h"

class Conversation : public FrameHandler {
  public:
    explicit Conversation(Decision& decision) : decision_(decision) {}
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;
    /// Logs what became of a split connection, and adds the connection to the summary.
    ~Conversation() override;

    /// A frame that is no request closes its connection: nothing after it could be told apart.
    Reply OnFrame(const unsigned char* frame, std::size_t length, std::vector<unsigned char>& out) override;
    Reply OnTime(std::vector<unsigned char>& out) override;
    std::uint32_t ProcessId() const override { return processId_; }

  private:
    Reply OnQuestion(std::vector<unsigned char>& out);
    Reply OnRelayed(std::vector<unsigned char>& out);
    Reply AfterRelayed(bool answered) const;

    Decision& decision_;
    ConnectionTally tally_;
    std::uint32_t processId_ = 0;
    /// Of the last connect that was allowed.
    std::shared_ptr<const InspectionPlan> plan_;
    std::string rule_;
    Request relayed_;
    /// From the first thing that was told of the split connection on.
    std::optional<Inspection> inspection_;
};
