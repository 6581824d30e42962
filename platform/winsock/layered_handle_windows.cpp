// An event object stands for the handle: its value is the process's own, and CloseHandle and DuplicateHandle
// behave. What the system would keep with a file object, the completion port and its key, is kept in a table
// here, and so is the status of a packet, which a program cannot post. The port functions of the modules
// under test are routed to those of this file, which fill the table and look there.
#include "platform/winsock/layered_handle_windows.h"

#include <map>
#include <mutex>

#include "platform/winsock/layered_handle.h"
#include "platform/winsock/socket_table.h"

namespace winsock_host {
namespace {

struct Association {
    HANDLE port;
    ULONG_PTR key;
};

struct Associations {
    std::mutex mutex;  // leaf
    std::map<SOCKET, Association> bySocket;
    std::map<const OVERLAPPED*, DWORD> failures;  // errors of packets in the queues
};

// Never destroyed: modules that are detached at process exit still close sockets.
Associations& TheAssociations() {
    static Associations& associations = *new Associations;
    return associations;
}

}  // namespace

SOCKET CreateLayeredHandle() noexcept {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    return event == nullptr ? INVALID_SOCKET : reinterpret_cast<SOCKET>(event);
}

void CloseLayeredHandle(SOCKET handle) noexcept {
    {
        std::lock_guard<std::mutex> lock(TheAssociations().mutex);
        TheAssociations().bySocket.erase(handle);
    }
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

void AnnounceCompletion(SOCKET handle, OVERLAPPED* overlapped, DWORD bytes, DWORD error) noexcept {
    Associations& associations = TheAssociations();
    std::lock_guard<std::mutex> lock(associations.mutex);
    const auto found = associations.bySocket.find(handle);
    if (found == associations.bySocket.end()) return;
    associations.failures.erase(overlapped);
    if (error != 0) associations.failures[overlapped] = error;
    PostQueuedCompletionStatus(found->second.port, bytes, found->second.key, overlapped);
}

HANDLE WINAPI HostCreateIoCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads) {
    const SOCKET s = reinterpret_cast<SOCKET>(file);
    if (file == INVALID_HANDLE_VALUE || !Sockets.Find(s).layered) {
        return CreateIoCompletionPort(file, port, key, threads);
    }
    std::lock_guard<std::mutex> lock(TheAssociations().mutex);
    if (TheAssociations().bySocket.count(s) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (port == nullptr) port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, threads);
    if (port != nullptr) TheAssociations().bySocket[s] = {port, key};
    return port;
}

BOOL WINAPI HostGetQueuedCompletionStatus(HANDLE port, LPDWORD bytes, PULONG_PTR key,
                                          LPOVERLAPPED* overlapped, DWORD milliseconds) {
    if (!GetQueuedCompletionStatus(port, bytes, key, overlapped, milliseconds)) return FALSE;
    DWORD error = 0;
    {
        std::lock_guard<std::mutex> lock(TheAssociations().mutex);
        const auto failure = TheAssociations().failures.find(*overlapped);
        if (failure == TheAssociations().failures.end()) return TRUE;
        error = failure->second;
        TheAssociations().failures.erase(failure);
    }
    SetLastError(error);
    return FALSE;
}

}  // namespace winsock_host
