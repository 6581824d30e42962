// See analyzer_messages.h.
#include "messages/analyzer_messages.h"

namespace {

// Prepared before the fields are known; both kinds' fields always take more, so no unfilled bytes reach the
// wire.
constexpr std::uint32_t kRequestFieldPieceSize = 64;
constexpr std::uint32_t kResponseFieldPieceSize = 24;

constexpr std::uint32_t kLspMessageType = 1;
constexpr std::uint32_t kFieldPieces = 4;

// Family and port of the destination are left out: its port has a field of its own.
constexpr std::uint32_t kRemoteAddressSkipped = 4;
constexpr std::uint32_t kRemoteAddressSize = sizeof(sockaddr_storage) - kRemoteAddressSkipped;

constexpr std::uint32_t kResponseFieldsSize = 148;

static_assert(sizeof(sockaddr_storage) == 128, "the wire carries 128 bytes of address");

}  // namespace

BaseAnalyzerMessage::BaseAnalyzerMessage() : Operation(0) {
    FieldBuffers.reserve(kFieldPieces);
    BaseAnalyzerMessage::ResetFields();
}

BaseAnalyzerMessage::BaseAnalyzerMessage(BufferAllocFunction alloc, BufferFreeFunction release)
    : BaseAnalyzerMessage() {
    AllocFunction = alloc;
    FreeFunction = release;
}

void BaseAnalyzerMessage::ReleaseBuffers() {
    MessageBase::ReleaseBuffers();
    FieldBuffers.clear();
}

BufferPiece BaseAnalyzerMessage::AllocateBuffer(std::uint32_t size) {
    const BufferPiece piece = MessageBase::AllocateBuffer(size);
    FieldBuffers.push_back(piece);
    return piece;
}

void BaseAnalyzerMessage::ResetFields() {
    ProcessName.clear();
    WindowTitle.clear();
    ImageSigner.clear();
    ProcessId = 0;
    UserName.clear();
    LocalPort = 0;
    LocalAddress = sockaddr_storage();
    RemotePort = 0;
    RemoteAddress = sockaddr_storage();
    SocketType = 0;
    Protocol = 0;
    BytesSent = 0;
    BytesReceived = 0;
    Flags = 0;
    MessageType = 0;
    AllocateBuffer(kRequestFieldPieceSize);
}

std::uint32_t BaseAnalyzerMessage::FieldsSize() const {
    constexpr std::uint32_t withoutTexts = 304;
    return withoutTexts + StringSize(UserName) + StringSize(WindowTitle) + StringSize(ImageSigner);
}

void BaseAnalyzerMessage::WriteFields() {
    ReserveBytes(FieldsSize());
    WriteUInt32(MessageId);
    WriteUInt32(ProcessId);
    WriteUInt32(LocalPort);
    WriteBytes(&LocalAddress, sizeof(LocalAddress));
    WriteUInt32(RemotePort);
    WriteBytes(reinterpret_cast<const unsigned char*>(&RemoteAddress) + kRemoteAddressSkipped,
               kRemoteAddressSize);
    WriteUInt32(SocketType);
    WriteString(UserName);
    WriteUInt32(Protocol);
    WriteUInt32(0);
    WriteUInt32(Flags);
    WriteString(WindowTitle);
    WriteString(ImageSigner);
    WriteBytes(&BytesSent, sizeof(BytesSent));
    WriteBytes(&BytesReceived, sizeof(BytesReceived));
    WriteUInt32(MessageType);
}

void BaseAnalyzerMessage::ReadFields() {
    std::uint32_t word = 0;
    ReadUInt32(MessageId);
    ReadUInt32(ProcessId);
    ReadUInt32(word);
    LocalPort = static_cast<std::uint16_t>(word);
    ReadBytes(&LocalAddress, sizeof(LocalAddress));
    ReadUInt32(word);
    RemotePort = static_cast<std::uint16_t>(word);
    ReadBytes(reinterpret_cast<unsigned char*>(&RemoteAddress) + kRemoteAddressSkipped, kRemoteAddressSize);
    ReadUInt32(SocketType);
    ReadString(UserName);
    ReadUInt32(Protocol);
    ReadUInt32(word);
    ReadUInt32(Flags);
    ReadString(WindowTitle);
    ReadString(ImageSigner);
    ReadBytes(&BytesSent, sizeof(BytesSent));
    ReadBytes(&BytesReceived, sizeof(BytesReceived));
    ReadUInt32(MessageType);
}

std::vector<BufferPiece>& BaseAnalyzerMessage::GetFieldBuffers() {
    return FieldBuffers;
}

LSPAnalyzerMessage::LSPAnalyzerMessage() {
    MessageType = kLspMessageType;
}

LSPAnalyzerMessage::LSPAnalyzerMessage(BufferAllocFunction alloc, BufferFreeFunction release)
    : BaseAnalyzerMessage(alloc, release) {
    MessageType = kLspMessageType;
}

void LSPAnalyzerMessage::ResetFields() {
    BaseAnalyzerMessage::ResetFields();
    Operation = 0;
    MessageType = kLspMessageType;
}

void LSPAnalyzerMessage::WriteFields() {
    // One further piece for all fields that the prepared one can't hold.
    ReserveBytes(FieldsSize() + sizeof(Operation));
    BaseAnalyzerMessage::WriteFields();
    WriteUInt32(Operation);
}

void LSPAnalyzerMessage::ReadFields() {
    BaseAnalyzerMessage::ReadFields();
    ReadUInt32(Operation);
}

BaseAnalyzerMessageResponse::BaseAnalyzerMessageResponse() {
    FieldBuffers.reserve(kFieldPieces);
    BaseAnalyzerMessageResponse::ResetFields();
}

BaseAnalyzerMessageResponse::BaseAnalyzerMessageResponse(BufferAllocFunction alloc,
                                                         BufferFreeFunction release)
    : BaseAnalyzerMessageResponse() {
    AllocFunction = alloc;
    FreeFunction = release;
}

void BaseAnalyzerMessageResponse::ReleaseBuffers() {
    MessageBase::ReleaseBuffers();
    FieldBuffers.clear();
}

BufferPiece BaseAnalyzerMessageResponse::AllocateBuffer(std::uint32_t size) {
    const BufferPiece piece = MessageBase::AllocateBuffer(size);
    FieldBuffers.push_back(piece);
    return piece;
}

void BaseAnalyzerMessageResponse::ResetFields() {
    Action = ActionAllow;
    RedirectAddress = sockaddr_storage();
    ExemptProcessId = 0;
    Flags = 0;
    RequestId = 0;
    AllocateBuffer(kResponseFieldPieceSize);
}

void BaseAnalyzerMessageResponse::WriteFields() {
    ReserveBytes(kResponseFieldsSize);
    WriteUInt32(MessageId);
    WriteUInt32(RequestId);
    WriteUInt32(ExemptProcessId);
    WriteUInt32(Action);
    WriteBytes(&RedirectAddress, sizeof(RedirectAddress));
    WriteUInt32(Flags);
}

void BaseAnalyzerMessageResponse::ReadFields() {
    ReadUInt32(MessageId);
    ReadUInt32(RequestId);
    ReadUInt32(ExemptProcessId);
    ReadUInt32(Action);
    ReadBytes(&RedirectAddress, sizeof(RedirectAddress));
    ReadUInt32(Flags);
}

std::vector<BufferPiece>& BaseAnalyzerMessageResponse::GetFieldBuffers() {
    return FieldBuffers;
}

LSPAnalyzerMessageResponse::LSPAnalyzerMessageResponse(BufferAllocFunction alloc, BufferFreeFunction release)
    : BaseAnalyzerMessageResponse(alloc, release) {}
