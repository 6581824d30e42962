// See spy_messages.h.
#include "relay/split/spy_messages.h"

#include <exception>
#include <utility>

#include "base/trace.h"
#include "identity/request_fields.h"
#include "messages/message_transport.h"
#include "relay/split/relay_requests.h"

namespace {

std::uint32_t FlagsOf(const RelayConnection& connection) {
    std::uint32_t flags = 0;
    const bool isStream = connection.SocketType == SOCK_STREAM;
    if (connection.ReportTraffic) flags |= kFlagReportTraffic;
    if (connection.CountTraffic) flags |= kFlagCountTraffic;
    if (connection.AnalyzerServes) flags |= kFlagAnalyzerServes;
    if (isStream && connection.InspectData) flags |= kFlagInspectData;
    if (isStream) flags |= kFlagRelayWanted;
    return flags;
}

/// Throws std::bad_alloc.
void Fill(LSPAnalyzerMessage& request, const RelayConnection& connection, OperationCode operation,
          DWORD bytes) {
    FillRequestFields(request, nullptr);
    request.LocalAddress = connection.ClientAddress;
    request.LocalPort = connection.ClientPort;
    request.RemoteAddress = connection.DestinationAddress;
    request.RemotePort = connection.DestinationPort;
    request.SocketType = connection.SocketType;
    request.Protocol = connection.Protocol;
    request.Flags = FlagsOf(connection);
    if (connection.CountTraffic && operation == OpClientData) request.BytesSent = bytes;
    if (connection.CountTraffic && operation == OpServerData) request.BytesReceived = bytes;
    request.Operation = operation;
}

/// The request, filled, or null without memory.
PooledRequest MakeRequest(const RelayConnection& connection, OperationCode operation, PerIOData* dataRecord,
                          DWORD bytes) {
    PooledRequest request = TakeRequest();
    if (request == nullptr) return nullptr;
    try {
        Fill(*request, connection, operation, bytes);
    } catch (const std::exception&) {
        return nullptr;
    }
    if (dataRecord == nullptr) return request;
    if (!request->SetDataBuffers(&dataRecord->Buffer, 1, bytes, true)) return nullptr;
    dataRecord->Buffer = {0, nullptr};
    return request;
}

}  // namespace

bool SendSpyMessage(RelayConnection& connection, OperationCode operation, PerIOData* dataRecord,
                    DWORD bytes) {
    return SendSpyReport(connection, MakeRequest(connection, operation, dataRecord, bytes));
}

bool SendSpyReport(RelayConnection& connection, PooledRequest request) {
    const SOCKET spySocket = connection.SpySocket;
    PooledPerIOData record = AcquirePerIOData(RelayOpSpySend, spySocket, connection.RelayIndex);
    if (record != nullptr && request != nullptr) {
        record->Request = std::move(request);
        AddPendingSend(RelayOpSpySend, connection);
        PostedRequests.Increment();
        // The packet may come before this returns: the record is the port's from here on.
        PerIOData* const posted = record.release();
        if (SendMessage(*posted->Request, spySocket, &posted->Overlapped)) return true;
        PostedRequests.Decrement();
        record.reset(posted);
        UncountPendingSend(RelayOpSpySend, connection);
    }
    Trace("ERROR:Failed to send to lsp server socket %d from client socket.relayIndex:%d\n",
          static_cast<int>(spySocket), static_cast<int>(connection.RelayIndex));
    return false;
}
