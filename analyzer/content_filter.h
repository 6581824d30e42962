// The content rules of a plan at work on the bytes from one side, one rule behind the other. Bytes that may
// be the beginning of a match are kept until more of them tell, kMostMatchBytes for each rule at most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analyzer/inspection_plan.h"

/// One rule.
class ContentStage {
  public:
    explicit ContentStage(const ContentRule& rule);

    /// Appends what may go on to `out`. True where the rule ends the stream: nothing of the match has gone on
    /// that wasn't let go before.
    bool Pass(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out);

    /// Lets go what was kept.
    void LetGo(std::vector<unsigned char>& out);

    bool Keeps() const { return !kept_.empty(); }
    std::uint64_t Replaced() const { return replaced_; }
    ContentAction Action() const { return rule_.then; }

  private:
    void PassAllBut(std::size_t stay, const unsigned char* bytes, std::size_t count,
                    std::vector<unsigned char>& out);

    const ContentRule& rule_;
    StreamSearch search_;
    std::uint64_t toLookAt_;
    std::vector<unsigned char> kept_;
    std::uint64_t replaced_ = 0;
};

class ContentFilter {
  public:
    /// `plan` must outlive the filter.
    ContentFilter(const InspectionPlan& plan, Side from);

    /// Whether there is no rule for this side: then bytes need not come through here.
    bool IsEmpty() const { return stages_.empty(); }

    /// Appends what may go on to `out`. With a result the stream ends behind that.
    std::optional<ContentAction> Pass(const unsigned char* bytes, std::size_t count,
                                      std::vector<unsigned char>& out);

    /// Likewise for what was kept.
    std::optional<ContentAction> LetGo(std::vector<unsigned char>& out);

    bool Keeps() const;
    std::uint64_t Replaced() const;

  private:
    std::optional<ContentAction> Run(const unsigned char* bytes, std::size_t count, bool letGo,
                                     std::vector<unsigned char>& out);

    std::vector<ContentStage> stages_;
    /// What goes from one stage to the next, and what the next makes of it.
    std::vector<unsigned char> given_;
    std::vector<unsigned char> between_;
};
