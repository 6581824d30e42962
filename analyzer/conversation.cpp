// See conversation.h.
#include "analyzer/conversation.h"

#include "messages/analyzer_messages.h"

namespace {

/// More than the layer ever sends at a time; what a frame can make of the memory of a connection is bounded
/// by it.
constexpr std::size_t kMostRelayedData = 256u * 1024;

/// The beginning of what a content rule looks for is kept while nothing comes for one to two such intervals:
/// long enough for the rest of a message that is on its way, too short to be felt where it was the end of
/// one.
constexpr std::uint32_t kIntervalMilliseconds = 25;

}  // namespace

Conversation::~Conversation() {
    decision_.Summary().Add(tally_);
    RequestLog* const log = decision_.Log();
    if (inspection_ && log != nullptr) log->WriteInspected(relayed_, rule_, inspection_->Counts());
}

Reply Conversation::OnFrame(const unsigned char* frame, std::size_t length, std::vector<unsigned char>& out) {
    Reply reply;
    if (!decision_.Reader().Read(frame, length)) {
        reply.kind = Reply::Kind::kClose;
        return reply;
    }
    processId_ = decision_.Reader().ProcessId();
    return IsRelayed(decision_.Reader().Operation()) ? OnRelayed(out) : OnQuestion(out);
}

Reply Conversation::OnQuestion(std::vector<unsigned char>& out) {
    Request request;
    const Rule& rule = decision_.Decide(request);
    tally_.Add(request, rule);
    if (request.operation == OpConnect && rule.verdict.action == RuleAction::kAllow) {
        plan_ = rule.verdict.plan;
        rule_ = rule.name;
    }
    if (request.operation == OpCloseSocket && inspection_) {
        const std::size_t before = out.size();
        inspection_->OnSocketClosed(out);
        return AfterRelayed(out.size() != before);
    }
    return decision_.Answer(request, rule, out);
}

Reply Conversation::OnRelayed(std::vector<unsigned char>& out) {
    const RequestReader& reader = decision_.Reader();
    if (!inspection_) {
        reader.Fill(relayed_);
        inspection_.emplace(plan_);
    }
    if (reader.DataLength() > kMostRelayedData) {
        Reply reply;
        reply.kind = Reply::Kind::kClose;
        return reply;
    }
    const std::size_t before = out.size();
    switch (reader.Operation()) {
        case OpClientData:
            inspection_->OnData(Side::kClient, reader.Data(), reader.DataLength(), out);
            break;
        case OpServerData:
            inspection_->OnData(Side::kServer, reader.Data(), reader.DataLength(), out);
            break;
        case OpClientClosed:
            inspection_->OnClosed(Side::kClient, out);
            break;
        default:
            inspection_->OnClosed(Side::kServer, out);
            break;
    }
    return AfterRelayed(out.size() != before);
}

Reply Conversation::OnTime(std::vector<unsigned char>& out) {
    const std::size_t before = out.size();
    if (inspection_) inspection_->OnInterval(out);
    return AfterRelayed(out.size() != before);
}

Reply Conversation::AfterRelayed(bool answered) const {
    Reply reply;
    if (answered) reply.kind = Reply::Kind::kSend;
    if (inspection_) {
        reply.delayMilliseconds = inspection_->HoldMilliseconds();
        if (inspection_->Keeps()) reply.callMilliseconds = kIntervalMilliseconds;
    }
    return reply;
}
