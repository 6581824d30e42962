// See decision.h.
#include "analyzer/decision.h"

#include <cstring>
#include <memory>

#include "messages/message_limits.h"

namespace {

constexpr char kGarbage[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";

std::uint32_t HostOrder(const unsigned char* bytes) {
    return (std::uint32_t(bytes[0]) << 24) | (std::uint32_t(bytes[1]) << 16) |
           (std::uint32_t(bytes[2]) << 8) | bytes[3];
}

// Within a socket address: family, port in network order, address.
constexpr std::size_t kAddressOffset = 4;
constexpr std::size_t kPortOffset = 2;

std::uint32_t AddressIn(const sockaddr_storage& storage) {
    return HostOrder(reinterpret_cast<const unsigned char*>(&storage) + kAddressOffset);
}

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

bool ReadFrameLength(const unsigned char* start, std::size_t& length) {
    std::uint32_t announced = 0;
    std::memcpy(&announced, start, sizeof(announced));
    length = announced;
    return announced >= kFrameHeaderSize && IsReadableFrameLength(announced);
}

Reply Decision::OnFrame(const unsigned char* frame, std::size_t length, std::vector<unsigned char>& out) {
    Reply reply;
    if (!ReadRequest(frame, length)) {
        reply.kind = Reply::Kind::kClose;
        return reply;
    }
    reply.processId = request_.processId;
    const Rule& rule = rules_.Decide(request_);
    if (log_ != nullptr) log_->Write(request_, rule);
    reply.delayMilliseconds = rule.verdict.delayMilliseconds;
    switch (rule.verdict.behaviour) {
        case Behaviour::kSilent:
            break;
        case Behaviour::kClose:
            reply.kind = Reply::Kind::kClose;
            break;
        case Behaviour::kGarbage:
            if (!AwaitsAnswer(request_.operation)) break;
            out.insert(out.end(), kGarbage, kGarbage + sizeof(kGarbage) - 1);
            reply.kind = Reply::Kind::kSend;
            break;
        case Behaviour::kAnswer:
            if (!AwaitsAnswer(request_.operation)) break;
            reply.kind = AppendAnswer(rule.verdict, out) ? Reply::Kind::kSend : Reply::Kind::kClose;
            break;
    }
    return reply;
}

bool Decision::ReadRequest(const unsigned char* frame, std::size_t length) {
    // Read in place; the message doesn't write to a chain that it deserialises.
    const BufferPiece piece{static_cast<std::uint32_t>(length), const_cast<unsigned char*>(frame)};
    if (!requestMessage_.SetBuffers(&piece, 1, false) || !requestMessage_.Deserialize()) return false;
    if (requestMessage_.DataLength < 0) return false;
    request_.messageId = requestMessage_.MessageId;
    request_.operation = requestMessage_.Operation;
    request_.processId = requestMessage_.ProcessId;
    request_.user = requestMessage_.UserName;
    request_.window = requestMessage_.WindowTitle;
    request_.signer = requestMessage_.ImageSigner;
    request_.local = {AddressIn(requestMessage_.LocalAddress), requestMessage_.LocalPort};
    request_.destination = {AddressIn(requestMessage_.RemoteAddress), requestMessage_.RemotePort};
    request_.socketType = requestMessage_.SocketType;
    request_.protocol = requestMessage_.Protocol;
    request_.flags = requestMessage_.Flags;
    request_.bytesSent = requestMessage_.BytesSent;
    request_.bytesReceived = requestMessage_.BytesReceived;
    request_.dataLength = static_cast<std::uint32_t>(requestMessage_.DataLength);
    return true;
}

bool Decision::AppendAnswer(const Verdict& verdict, std::vector<unsigned char>& out) {
    answerMessage_.ReleaseBuffers();
    answerMessage_.ResetHeader();
    answerMessage_.ResetFields();
    answerMessage_.RequestId = request_.messageId;
    answerMessage_.Action = ActionOf(verdict.action);
    answerMessage_.Flags = verdict.flags;
    if (verdict.action == RuleAction::kRedirect)
        StoreEndpoint(verdict.redirect, answerMessage_.RedirectAddress);
    if (verdict.exempt) answerMessage_.ExemptProcessId = request_.processId;

    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;
    if (!answerMessage_.Serialize() || !answerMessage_.GetAllBuffers(pieces, count, false)) return false;
    const std::unique_ptr<BufferPiece[]> releasePieces(pieces);
    for (std::uint32_t index = 0; index < count; ++index) {
        out.insert(out.end(), pieces[index].data, pieces[index].data + pieces[index].length);
    }
    return true;
}
