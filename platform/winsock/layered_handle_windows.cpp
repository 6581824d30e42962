// An event object stands for the handle: its value is the process's own, and CloseHandle and DuplicateHandle
// behave. What the system would keep with a file object, the completion port and its key, is kept in a table
// here; HostCreateIoCompletionPort fills it, to which the program routes CreateIoCompletionPort of the
// modules it hosts.
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

// The packet's status cannot be given to PostQueuedCompletionStatus: a waiter gets every packet as a success
// and finds the error in the record, where WSAGetOverlappedResult looks.
void AnnounceCompletion(SOCKET handle, OVERLAPPED* overlapped, DWORD bytes, DWORD) noexcept {
    std::lock_guard<std::mutex> lock(TheAssociations().mutex);
    const auto found = TheAssociations().bySocket.find(handle);
    if (found == TheAssociations().bySocket.end()) return;
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

}  // namespace winsock_host
