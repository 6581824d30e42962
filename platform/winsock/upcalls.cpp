// What providers ask of Winsock.
#include "platform/winsock/upcalls.h"

#include <windows.h>

#include <atomic>
#include <cstring>

#include "platform/winsock/catalog.h"
#include "platform/winsock/host_seam.h"
#include "platform/winsock/layered_handle.h"
#include "platform/winsock/provider.h"
#include "platform/winsock/request_status.h"
#include "platform/winsock/socket_table.h"
#include "platform/winsock/thread_record.h"

namespace winsock_host {
namespace {

template <class Result>
Result Failed(Result failure, DWORD code, LPINT error) {
    if (error != nullptr) *error = static_cast<int>(code);
    return failure;
}

// An event without its low bit, which only says that no packet is wanted.
HANDLE EventOf(HANDLE event) {
    return reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) & ~static_cast<ULONG_PTR>(1));
}

// Writes the outcome so that somebody who polls the record finds it whole; the record may be gone right
// after.
void Publish(LPWSAOVERLAPPED overlapped, DWORD status, DWORD bytes) {
    overlapped->InternalHigh = bytes;
    __atomic_store_n(&overlapped->Internal, static_cast<ULONG_PTR>(status), __ATOMIC_RELEASE);
}

int FillProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error) {
    if (provider == nullptr || length == nullptr || path == nullptr)
        return Failed(SOCKET_ERROR, WSAEFAULT, error);
    const std::shared_ptr<const Catalog> catalog = CurrentCatalog();
    const CatalogEntry* entry = catalog->FindByProvider(*provider);
    if (entry == nullptr) return Failed(SOCKET_ERROR, WSAEINVAL, error);
    const int needed = static_cast<int>(entry->path.size()) + 1;
    const int given = *length;
    *length = needed;
    if (given < needed) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    std::memcpy(path, entry->path.c_str(), static_cast<std::size_t>(needed) * sizeof(WCHAR));
    return 0;
}

bool IsListed(int protocol, const int* protocols) {
    for (; *protocols != 0; ++protocols) {
        if (*protocols == protocol) return true;
    }
    return false;
}

}  // namespace

WSPUPCALLTABLE TheUpcallTable() noexcept {
    return {HostWPUCloseEvent,
            HostWPUCloseSocketHandle,
            HostWPUCreateEvent,
            HostWPUCreateSocketHandle,
            HostWPUFDIsSet,
            HostWPUGetProviderPath,
            HostWPUModifyIFSHandle,
            HostWPUPostMessage,
            HostWPUQueryBlockingCallback,
            HostWPUQuerySocketHandleContext,
            HostWPUQueueApc,
            HostWPUResetEvent,
            HostWPUSetEvent,
            HostWPUOpenCurrentThread,
            HostWPUCloseThread};
}

BOOL WSPAPI HostWPUCloseEvent(WSAEVENT event, LPINT error) {
    HostCall call("WPUCloseEvent", WSA_INVALID_HANDLE);
    if (call.Faulted()) return Failed(FALSE, call.error(), error);
    return CloseHandle(event) ? TRUE : Failed(FALSE, WSA_INVALID_HANDLE, error);
}

WSAEVENT WSPAPI HostWPUCreateEvent(LPINT error) {
    HostCall call("WPUCreateEvent", WSA_NOT_ENOUGH_MEMORY);
    if (call.Faulted()) return Failed(WSA_INVALID_EVENT, call.error(), error);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    return event != nullptr ? event : Failed(WSA_INVALID_EVENT, GetLastError(), error);
}

BOOL WSPAPI HostWPUResetEvent(WSAEVENT event, LPINT error) {
    HostCall call("WPUResetEvent", WSA_INVALID_HANDLE);
    if (call.Faulted()) return Failed(FALSE, call.error(), error);
    return ResetEvent(event) ? TRUE : Failed(FALSE, WSA_INVALID_HANDLE, error);
}

BOOL WSPAPI HostWPUSetEvent(WSAEVENT event, LPINT error) {
    HostCall call("WPUSetEvent", WSA_INVALID_HANDLE);
    if (call.Faulted()) return Failed(FALSE, call.error(), error);
    return SetEvent(event) ? TRUE : Failed(FALSE, WSA_INVALID_HANDLE, error);
}

SOCKET WSPAPI HostWPUCreateSocketHandle(DWORD catalogEntryId, DWORD_PTR context, LPINT error) {
    HostCall call("WPUCreateSocketHandle", WSAENOBUFS);
    if (call.Faulted()) return Failed(INVALID_SOCKET, call.error(), error);
    CallScope scope;
    Provider* provider = ProviderOfEntry(catalogEntryId);
    if (provider == nullptr) return Failed(INVALID_SOCKET, WSAEINVAL, error);
    const SOCKET s = CreateLayeredHandle();
    if (s == INVALID_SOCKET) return Failed(INVALID_SOCKET, WSAENOBUFS, error);
    if (!Sockets.Add(s, {provider, true}, context)) {
        CloseLayeredHandle(s);
        return Failed(INVALID_SOCKET, WSAENOBUFS, error);
    }
    return s;
}

int WSPAPI HostWPUCloseSocketHandle(SOCKET s, LPINT error) {
    HostCall call("WPUCloseSocketHandle", WSAENOTSOCK);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (Sockets.Remove(s, true).provider == nullptr) return Failed(SOCKET_ERROR, WSAENOTSOCK, error);
    CloseLayeredHandle(s);
    return 0;
}

int WSPAPI HostWPUQuerySocketHandleContext(SOCKET s, PDWORD_PTR context, LPINT error) {
    HostCall call("WPUQuerySocketHandleContext", WSAENOTSOCK);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (context == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    return Sockets.Context(s, context) ? 0 : Failed(SOCKET_ERROR, WSAENOTSOCK, error);
}

SOCKET WSPAPI HostWPUModifyIFSHandle(DWORD catalogEntryId, SOCKET proposed, LPINT error) {
    HostCall call("WPUModifyIFSHandle", WSAENOBUFS);
    if (call.Faulted()) return Failed(INVALID_SOCKET, call.error(), error);
    CallScope scope;
    Provider* provider = ProviderOfEntry(catalogEntryId);
    if (provider == nullptr) return Failed(INVALID_SOCKET, WSAEINVAL, error);
    if (!Sockets.Add(proposed, {provider, false}, 0)) return Failed(INVALID_SOCKET, WSAENOBUFS, error);
    return proposed;
}

int WSPAPI HostWPUFDIsSet(SOCKET s, fd_set* set) {
    if (set == nullptr) return 0;
    for (unsigned int i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) return 1;
    }
    return 0;
}

BOOL WSPAPI HostWPUPostMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    HostCall call("WPUPostMessage", ERROR_INVALID_WINDOW_HANDLE);
    return call.Fails() ? FALSE : PostMessageA(window, message, wParam, lParam);
}

// Blocking hooks are a matter of the first version of the interface; there is never one.
int WSPAPI HostWPUQueryBlockingCallback(DWORD catalogEntryId, LPBLOCKINGCALLBACK* callback,
                                        PDWORD_PTR context, LPINT error) {
    HostCall call("WPUQueryBlockingCallback", WSAENOBUFS);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    CallScope scope;
    if (callback == nullptr || context == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    if (ProviderOfEntry(catalogEntryId) == nullptr) return Failed(SOCKET_ERROR, WSAEINVAL, error);
    *callback = nullptr;
    *context = 0;
    return 0;
}

int WSPAPI HostWPUOpenCurrentThread(LPWSATHREADID thread, LPINT error) {
    HostCall call("WPUOpenCurrentThread", WSAENOBUFS);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (thread == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    HANDLE handle = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle, 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
        return Failed(SOCKET_ERROR, WSAENOBUFS, error);
    }
    thread->ThreadHandle = handle;
    thread->Reserved = 0;
    return 0;
}

int WSPAPI HostWPUCloseThread(LPWSATHREADID thread, LPINT error) {
    HostCall call("WPUCloseThread", WSAEINVAL);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (thread == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    if (!CloseHandle(thread->ThreadHandle)) return Failed(SOCKET_ERROR, WSAEINVAL, error);
    thread->ThreadHandle = nullptr;
    return 0;
}

int WSPAPI HostWPUQueueApc(LPWSATHREADID thread, LPWSAUSERAPC procedure, DWORD_PTR context, LPINT error) {
    HostCall call("WPUQueueApc", WSAENOBUFS);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (thread == nullptr || procedure == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    // Both are functions of one pointer-sized argument without a result.
    if (QueueUserAPC(reinterpret_cast<PAPCFUNC>(procedure), thread->ThreadHandle, context) == 0) {
        return Failed(SOCKET_ERROR, WSAEINVAL, error);
    }
    return 0;
}

int WSPAPI HostWPUCompleteOverlappedRequest(SOCKET s, LPWSAOVERLAPPED overlapped, DWORD error, DWORD bytes,
                                            LPINT callError) {
    HostCall call("WPUCompleteOverlappedRequest", WSAEINVAL);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), callError);
    if (overlapped == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, callError);
    if (!Sockets.Find(s).layered) return Failed(SOCKET_ERROR, WSAEINVAL, callError);
    const RequestStatus outcome = RequestStatusOf(error);
    const HANDLE hEvent = overlapped->hEvent;
    Publish(overlapped, outcome.status, bytes);
    const HANDLE event = EventOf(hEvent);
    if (event != nullptr) SetEvent(event);
    if (hEvent == event) AnnounceCompletion(s, overlapped, bytes, outcome.systemError);
    return 0;
}

int WSPAPI HostWPUGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error) {
    HostCall call("WPUGetProviderPath", WSAEINVAL);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    return FillProviderPath(provider, path, length, error);
}

int WSPAPI HostWSCGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error) {
    HostCall call("WSCGetProviderPath", WSAEINVAL);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    return FillProviderPath(provider, path, length, error);
}

int WSPAPI HostWSCEnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length, LPINT error) {
    HostCall call("WSCEnumProtocols", WSAENOBUFS);
    if (call.Faulted()) return Failed(SOCKET_ERROR, call.error(), error);
    if (length == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    const std::shared_ptr<const Catalog> catalog = CurrentCatalog();
    int count = 0;
    for (const CatalogEntry& entry : catalog->entries) {
        if (protocols == nullptr || IsListed(entry.info.iProtocol, protocols)) ++count;
    }
    const DWORD needed = static_cast<DWORD>(count * sizeof(WSAPROTOCOL_INFOW));
    const DWORD given = *length;
    *length = needed;
    if (given < needed) return Failed(SOCKET_ERROR, WSAENOBUFS, error);
    if (count == 0) return 0;
    if (buffer == nullptr) return Failed(SOCKET_ERROR, WSAEFAULT, error);
    for (const CatalogEntry& entry : catalog->entries) {
        if (protocols == nullptr || IsListed(entry.info.iProtocol, protocols)) *buffer++ = entry.info;
    }
    return count;
}

}  // namespace winsock_host
