// The two kinds of message between the layer and the analyzer: requests (what happens on a socket) and
// responses (what to do about it), with their codes and flags. The layouts on the wire are in
// docs/analyzer-protocol.md.
//
// A message belongs to one thread at a time; ownership of memory as in message_base.h. The constructors and
// ResetFields throw std::bad_alloc.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include <cstdint>
#include <string>
#include <vector>

#include "messages/message_base.h"

/// `Operation` of a request. Codes 0 and 1 are never sent.
enum OperationCode : std::uint32_t {
    OpCloseSocket = 2,
    OpSend = 3,
    OpSendProtocol = 4,
    OpRecv = 5,
    OpRecvProtocol = 6,
    OpClientClosed = 7,
    OpServerClosed = 8,
    OpClientData = 9,
    OpServerData = 10,
    OpBind = 11,
    OpConnect = 12,
};

/// `Action` of a response. Code 7 is handled as ActionAllow by a connect.
enum ActionCode : std::uint32_t {
    ActionAllow = 0,
    ActionBlock = 1,
    ActionRedirect = 2,
    ActionSendToClient = 3,
    ActionSendToServer = 4,
    ActionCloseClient = 5,
    ActionCloseServer = 6,
};

/// Bits of `Flags`: the verdict of a socket in responses, what holds for it in requests.
constexpr std::uint32_t kFlagCountTraffic = 0x01;
constexpr std::uint32_t kFlagReportTraffic = 0x02;
constexpr std::uint32_t kFlagInspectData = 0x04;
constexpr std::uint32_t kFlagRelayWanted = 0x08;
/// Response only: the socket's verdict flags stay as they are.
constexpr std::uint32_t kFlagKeepFlags = 0x10;
constexpr std::uint32_t kFlagAnalyzerServes = 0x20;

/// The request fields common to every sender of requests.
class BaseAnalyzerMessage : public MessageBase {
  public:
    BaseAnalyzerMessage();
    /// Buffers made from now on come from `alloc` and all go back through `release`, which must also accept
    /// the new[] memory of the pieces made here.
    BaseAnalyzerMessage(BufferAllocFunction alloc, BufferFreeFunction release);

    void ReleaseBuffers() override;
    BufferPiece AllocateBuffer(std::uint32_t size) override;
    /// Defaults for all fields and a fresh field piece.
    virtual void ResetFields();

    /// Image of the host process; stays with the request, never sent.
    std::string ProcessName;
    std::string WindowTitle;
    std::string ImageSigner;
    std::uint32_t ProcessId;
    std::string UserName;
    /// Ports in host order.
    std::uint16_t LocalPort;
    sockaddr_storage LocalAddress;
    std::uint16_t RemotePort;
    /// Sent from its fifth byte on: family and port are not in the block. Receiving fills the same bytes.
    sockaddr_storage RemoteAddress;
    std::uint32_t SocketType;
    std::uint32_t Protocol;
    std::uint64_t BytesSent;
    std::uint64_t BytesReceived;
    std::uint32_t Flags;
    std::uint32_t Operation;
    std::uint32_t MessageType;

  protected:
    void WriteFields() override;
    void ReadFields() override;
    std::vector<BufferPiece>& GetFieldBuffers() override;

    /// Bytes that WriteFields of this class writes.
    std::uint32_t FieldsSize() const;

  private:
    std::vector<BufferPiece> FieldBuffers;
};

/// The request that the layer sends: the common fields and the operation.
class LSPAnalyzerMessage : public BaseAnalyzerMessage {
  public:
    LSPAnalyzerMessage();
    LSPAnalyzerMessage(BufferAllocFunction alloc, BufferFreeFunction release);

    void ResetFields() override;

  protected:
    void WriteFields() override;
    void ReadFields() override;
};

/// The response fields.
class BaseAnalyzerMessageResponse : public MessageBase {
  public:
    BaseAnalyzerMessageResponse();
    BaseAnalyzerMessageResponse(BufferAllocFunction alloc, BufferFreeFunction release);

    void ReleaseBuffers() override;
    BufferPiece AllocateBuffer(std::uint32_t size) override;
    virtual void ResetFields();

    std::uint32_t Action;
    /// Where to connect instead, with ActionRedirect.
    sockaddr_storage RedirectAddress;
    /// Not 0: a process that the layer leaves alone from now on.
    std::uint32_t ExemptProcessId;
    std::uint32_t Flags;
    /// MessageId of the request that this answers.
    std::uint32_t RequestId;

  protected:
    void WriteFields() override;
    void ReadFields() override;
    std::vector<BufferPiece>& GetFieldBuffers() override;

  private:
    std::vector<BufferPiece> FieldBuffers;
};

/// The response that the layer receives.
class LSPAnalyzerMessageResponse : public BaseAnalyzerMessageResponse {
  public:
    LSPAnalyzerMessageResponse() = default;
    LSPAnalyzerMessageResponse(BufferAllocFunction alloc, BufferFreeFunction release);
};
