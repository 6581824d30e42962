// See relay_completion_port.h.
#include "relay/split/relay_completion_port.h"

#include "base/layer_call.h"
#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"

Atomic<SOCKET> RelayListenSocket(INVALID_SOCKET);
Atomic<HANDLE> RelayCompletionPort(nullptr);

namespace {

bool Associate(SOCKET s, HANDLE port, DWORD concurrency) {
    const LayerCall call;
    INT error = 0;
    const ContextReference context(s, &error);
    if (!context || !context->OwnedByLayer) {
        WSASetLastError(WSAENOTSOCK);
        return false;
    }
    const SOCKET lowerSocket = context->ProviderSocket;
    return CreateIoCompletionPort(reinterpret_cast<HANDLE>(lowerSocket), port, 0, concurrency) != nullptr;
}

}  // namespace

void EnsureRelayCompletionPort() {
    if (RelayCompletionPort != nullptr) return;
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    if (port != nullptr) {
        // Two first splits at the same moment both make one; the port that came second goes.
        if (!RelayCompletionPort.StoreIfStill(nullptr, port)) SafeCloseHandle(port);
        return;
    }
    const DWORD error = GetLastError();
    SafeCloseSocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    Trace("ERROR:Failed to create the completion port:%d\n", static_cast<int>(error));
}

bool AssociateWithRelayCompletionPort(SOCKET s, DWORD concurrency) {
    EnsureRelayCompletionPort();
    const HANDLE port = RelayCompletionPort;
    if (port != nullptr && Associate(s, port, concurrency)) return true;
    Trace("ERROR:Failed to create completion port for the socket %d:%d\n", static_cast<int>(s),
          WSAGetLastError());
    return false;
}
