// See request_fields.h. The values are copied one by one while other threads may use the socket; each is
// whole.
#include "identity/request_fields.h"

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

#include "base/locker.h"
#include "identity/host_process.h"
#include "identity/process_identity.h"
#include "messages/analyzer_messages.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"

namespace {

std::uint32_t VerdictFlags(const SocketContext& context) {
    std::uint32_t flags = 0;
    if (context.ReportTraffic) flags |= kFlagReportTraffic;
    if (context.CountTraffic) flags |= kFlagCountTraffic;
    if (context.SocketType != SOCK_STREAM) return flags;
    if (context.InspectData) flags |= kFlagInspectData;
    if (context.RelayWanted) flags |= kFlagRelayWanted;
    if (context.AnalyzerServes) flags |= kFlagAnalyzerServes;
    return flags;
}

}  // namespace

void FillRequestFields(LSPAnalyzerMessage& request, const SocketContext* context,
                       const SOCKADDR_STORAGE* peer) {
    {
        Locker lock(IdentityLock);
        request.ProcessName = ProcessImagePath;
        request.WindowTitle = MainWindowTitle;
        request.ImageSigner = ImageSignerSubject;
        request.UserName = ProcessUserName;
    }
    request.ProcessId = CurrentProcessId;
    if (context == nullptr) {
        request.BytesSent = 0;
        request.BytesReceived = 0;
        return;
    }
    request.LocalAddress = context->LocalAddress.Load();
    request.LocalPort = context->LocalAddress.Port();
    request.RemoteAddress = peer != nullptr ? *peer : context->DestinationAddress.Load();
    request.RemotePort = ntohs(reinterpret_cast<const sockaddr_in&>(request.RemoteAddress).sin_port);
    request.BytesSent = context->BytesSent;
    request.BytesReceived = context->BytesRecv;
    request.Protocol = context->Protocol;
    request.SocketType = static_cast<std::uint32_t>(context->SocketType);
    request.Flags |= VerdictFlags(*context);
}
