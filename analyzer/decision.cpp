// See decision.h.
#include "analyzer/decision.h"

#include <memory>

#include "analyzer/conversation.h"

namespace {

constexpr char kGarbage[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";

// Within a socket address: family, port in network order, address.
constexpr std::size_t kAddressOffset = 4;
constexpr std::size_t kPortOffset = 2;

void StoreEndpoint(const Endpoint& endpoint, sockaddr_storage& storage) {
    auto* bytes = reinterpret_cast<unsigned char*>(&storage);
    storage.ss_family = AF_INET;
    bytes[kPortOffset] = static_cast<unsigned char>(endpoint.port >> 8);
    bytes[kPortOffset + 1] = static_cast<unsigned char>(endpoint.port);
    for (std::size_t octet = 0; octet < 4; ++octet) {
        bytes[kAddressOffset + octet] = static_cast<unsigned char>(endpoint.address >> (24 - 8 * octet));
    }
}

std::uint32_t ActionOf(RuleAction action) {
    switch (action) {
        case RuleAction::kRefuse:
            return ActionBlock;
        case RuleAction::kRedirect:
            return ActionRedirect;
        case RuleAction::kAllow:
            break;
    }
    return ActionAllow;
}

}  // namespace

std::unique_ptr<FrameHandler> Decision::OnConnection() {
    return std::make_unique<Conversation>(*this);
}

const Rule& Decision::Decide(Request& request) {
    reader_.Fill(request);
    const Rule& rule = rules_.Decide(request);
    if (log_ != nullptr) log_->Write(request, rule);
    return rule;
}

Reply Decision::Answer(const Request& request, const Rule& rule, std::vector<unsigned char>& out) {
    Reply reply;
    reply.delayMilliseconds = rule.verdict.delayMilliseconds;
    switch (rule.verdict.behaviour) {
        case Behaviour::kSilent:
            break;
        case Behaviour::kClose:
            reply.kind = Reply::Kind::kClose;
            break;
        case Behaviour::kGarbage:
            if (!AwaitsAnswer(request.operation)) break;
            out.insert(out.end(), kGarbage, kGarbage + sizeof(kGarbage) - 1);
            reply.kind = Reply::Kind::kSend;
            break;
        case Behaviour::kAnswer:
            if (!AwaitsAnswer(request.operation)) break;
            reply.kind = AppendAnswer(request, rule.verdict, out) ? Reply::Kind::kSend : Reply::Kind::kClose;
            break;
    }
    return reply;
}

bool Decision::AppendAnswer(const Request& request, const Verdict& verdict, std::vector<unsigned char>& out) {
    answerMessage_.ReleaseBuffers();
    answerMessage_.ResetHeader();
    answerMessage_.ResetFields();
    answerMessage_.RequestId = request.messageId;
    answerMessage_.Action = ActionOf(verdict.action);
    answerMessage_.Flags = verdict.flags;
    // A rule that says nothing of flags means to change none. Their absence would: it ends an inspection.
    if (verdict.flags == 0 && IsTrafficReport(request.operation)) answerMessage_.Flags = kFlagKeepFlags;
    if (verdict.action == RuleAction::kRedirect)
        StoreEndpoint(verdict.redirect, answerMessage_.RedirectAddress);
    if (verdict.exempt) answerMessage_.ExemptProcessId = request.processId;

    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;
    if (!answerMessage_.Serialize() || !answerMessage_.GetAllBuffers(pieces, count, false)) return false;
    const std::unique_ptr<BufferPiece[]> releasePieces(pieces);
    for (std::uint32_t index = 0; index < count; ++index) {
        out.insert(out.end(), pieces[index].data, pieces[index].data + pieces[index].length);
    }
    return true;
}
