// See inspection.h.
#include "analyzer/inspection.h"

#include <string>
#include <utility>

#include "analyzer/answer_frames.h"
#include "messages/analyzer_messages.h"

namespace {

std::shared_ptr<const InspectionPlan> PlanOrNone(std::shared_ptr<const InspectionPlan> plan) {
    return plan != nullptr ? std::move(plan) : std::make_shared<const InspectionPlan>();
}

}  // namespace

Inspection::Inspection(std::shared_ptr<const InspectionPlan> plan)
    : plan_(PlanOrNone(std::move(plan))), client_(*plan_, Side::kClient), server_(*plan_, Side::kServer) {}

void Inspection::OnData(Side from, const unsigned char* bytes, std::size_t count,
                        std::vector<unsigned char>& out) {
    Stream& stream = From(from);
    stream.counts.received += count;
    stream.quiet = false;
    if (count == 0) return;
    if (plan_->page) {
        if (from == Side::kClient) Serve(bytes, count, out);
        return;
    }
    if (stream.ended || !From(OtherSide(from)).open) return;
    if (stream.filter.IsEmpty()) return Send(from, bytes, count, out);
    std::vector<unsigned char> passed;
    const std::optional<ContentAction> ends = stream.filter.Pass(bytes, count, passed);
    Send(from, passed.data(), passed.size(), out);
    if (ends) Cut(from, *ends, out);
}

void Inspection::OnClosed(Side side, std::vector<unsigned char>& out) {
    From(side).open = false;
    LetGo(side, out);
    CloseSide(OtherSide(side), out);
}

void Inspection::OnSocketClosed(std::vector<unsigned char>& out) {
    if (client_.closeSent) CloseSide(Side::kServer, out);
}

void Inspection::OnInterval(std::vector<unsigned char>& out) {
    for (const Side side : {Side::kClient, Side::kServer}) {
        if (std::exchange(From(side).quiet, true)) LetGo(side, out);
    }
}

InspectionCounts Inspection::Counts() const {
    InspectionCounts counts;
    counts.client = client_.counts;
    counts.server = server_.counts;
    counts.replaced = client_.filter.Replaced() + server_.filter.Replaced();
    counts.served = served_;
    counts.cut = cut_;
    return counts;
}

void Inspection::Serve(const unsigned char* bytes, std::size_t count, std::vector<unsigned char>& out) {
    if (!client_.open) return;
    switch (pageRequest_.Read(bytes, count)) {
        case PageRequest::State::kReading:
            return;
        case PageRequest::State::kNoRequest:
            break;
        case PageRequest::State::kWhole: {
            const std::string answer = PageAnswer(*plan_->page, pageRequest_.WantsBody());
            Send(Side::kServer, reinterpret_cast<const unsigned char*>(answer.data()), answer.size(), out);
            served_ = plan_->page->status;
            break;
        }
    }
    CloseSide(Side::kClient, out);
}

/// Sends to the side that `from` speaks to.
void Inspection::Send(Side from, const unsigned char* bytes, std::size_t count,
                      std::vector<unsigned char>& out) {
    if (count == 0 || !From(OtherSide(from)).open) return;
    AppendAction(from == Side::kClient ? ActionSendToServer : ActionSendToClient, bytes, count, out);
    From(from).counts.passed += count;
}

void Inspection::LetGo(Side from, std::vector<unsigned char>& out) {
    Stream& stream = From(from);
    if (!stream.Keeps()) return;
    std::vector<unsigned char> passed;
    const std::optional<ContentAction> ends = stream.filter.LetGo(passed);
    Send(from, passed.data(), passed.size(), out);
    if (ends) Cut(from, *ends, out);
}

void Inspection::Cut(Side from, ContentAction how, std::vector<unsigned char>& out) {
    From(from).ended = true;
    cut_ = how;
    if (how != ContentAction::kCutServer) CloseSide(Side::kClient, out);
    if (how != ContentAction::kCutClient) CloseSide(Side::kServer, out);
}

void Inspection::CloseSide(Side side, std::vector<unsigned char>& out) {
    Stream& stream = From(side);
    stream.open = false;
    if (std::exchange(stream.closeSent, true)) return;
    AppendAction(side == Side::kClient ? ActionCloseClient : ActionCloseServer, nullptr, 0, out);
}
