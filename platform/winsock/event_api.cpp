// Waiting for several sockets: select, network events, and the event objects under their Winsock names.
#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"
#include "platform/winsock/upcalls.h"

namespace winsock_host {
namespace {

// The socket whose provider answers for all of them: the first one of the first set that has any.
const SOCKET* FirstSocket(const fd_set* readSet, const fd_set* writeSet, const fd_set* exceptSet) {
    for (const fd_set* set : {readSet, writeSet, exceptSet}) {
        if (set != nullptr && set->fd_count > 0) return &set->fd_array[0];
    }
    return nullptr;
}

}  // namespace

int WSAAPI HostSelect(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet,
                      const PTIMEVAL timeout) {
    HostCall call("select", WSAENETDOWN);
    if (call.Fails()) return SOCKET_ERROR;
    if (!IsStarted()) return FailWith(WSANOTINITIALISED, SOCKET_ERROR);
    const SOCKET* first = FirstSocket(readSet, writeSet, exceptSet);
    if (first == nullptr) return FailWith(WSAEINVAL, SOCKET_ERROR);
    return CallOnSocket(call, *first, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSelect(count, readSet, writeSet, exceptSet, timeout, error);
    });
}

int WSAAPI HostWSAFDIsSet(SOCKET s, fd_set* set) {
    return HostWPUFDIsSet(s, set);
}

int WSAAPI HostWSAAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG events) {
    HostCall call("WSAAsyncSelect", WSAENETDOWN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPAsyncSelect(s, window, message, events, error);
    });
}

int WSAAPI HostWSAEventSelect(SOCKET s, WSAEVENT event, LONG events) {
    HostCall call("WSAEventSelect", WSAENETDOWN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPEventSelect(s, event, events, error);
    });
}

int WSAAPI HostWSAEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events) {
    HostCall call("WSAEnumNetworkEvents", WSAENETDOWN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPEnumNetworkEvents(s, event, events, error);
    });
}

WSAEVENT WSAAPI HostWSACreateEvent() {
    HostCall call("WSACreateEvent", WSA_NOT_ENOUGH_MEMORY);
    return call.Fails() ? WSA_INVALID_EVENT : CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

BOOL WSAAPI HostWSACloseEvent(WSAEVENT event) {
    HostCall call("WSACloseEvent", WSA_INVALID_HANDLE);
    return call.Fails() ? FALSE : CloseHandle(event);
}

BOOL WSAAPI HostWSASetEvent(WSAEVENT event) {
    HostCall call("WSASetEvent", WSA_INVALID_HANDLE);
    return call.Fails() ? FALSE : SetEvent(event);
}

BOOL WSAAPI HostWSAResetEvent(WSAEVENT event) {
    HostCall call("WSAResetEvent", WSA_INVALID_HANDLE);
    return call.Fails() ? FALSE : ResetEvent(event);
}

DWORD WSAAPI HostWSAWaitForMultipleEvents(DWORD count, const WSAEVENT* events, BOOL waitAll,
                                          DWORD milliseconds, BOOL alertable) {
    HostCall call("WSAWaitForMultipleEvents", WSA_INVALID_HANDLE);
    return call.Fails() ? WSA_WAIT_FAILED
                        : WaitForMultipleObjectsEx(count, events, waitAll, milliseconds, alertable);
}

}  // namespace winsock_host
