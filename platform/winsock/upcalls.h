// What Winsock does for its providers: the functions of the upcall table, the completion of overlapped
// requests, and the catalog questions that a layer asks.
//
// Any thread may call, providers with their own locks held: nothing here but CreateSocketHandle's allocation
// blocks.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

namespace winsock_host {

/// The table that is handed to every provider.
WSPUPCALLTABLE TheUpcallTable() noexcept;

BOOL WSPAPI HostWPUCloseEvent(WSAEVENT event, LPINT error);
int WSPAPI HostWPUCloseSocketHandle(SOCKET s, LPINT error);
WSAEVENT WSPAPI HostWPUCreateEvent(LPINT error);

/// A new handle that belongs to the catalog entry, with the provider's value for it. WSAEINVAL: no such
/// entry; WSAENOBUFS: no memory.
SOCKET WSPAPI HostWPUCreateSocketHandle(DWORD catalogEntryId, DWORD_PTR context, LPINT error);
int WSPAPI HostWPUFDIsSet(SOCKET s, fd_set* set);
int WSPAPI HostWPUGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error);

/// Makes a system handle known as a socket of the catalog entry. The handle is handed back as it is.
SOCKET WSPAPI HostWPUModifyIFSHandle(DWORD catalogEntryId, SOCKET proposed, LPINT error);
BOOL WSPAPI HostWPUPostMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
int WSPAPI HostWPUQueryBlockingCallback(DWORD catalogEntryId, LPBLOCKINGCALLBACK* callback,
                                        PDWORD_PTR context, LPINT error);
int WSPAPI HostWPUQuerySocketHandleContext(SOCKET s, PDWORD_PTR context, LPINT error);
int WSPAPI HostWPUQueueApc(LPWSATHREADID thread, LPWSAUSERAPC procedure, DWORD_PTR context, LPINT error);
BOOL WSPAPI HostWPUResetEvent(WSAEVENT event, LPINT error);
BOOL WSPAPI HostWPUSetEvent(WSAEVENT event, LPINT error);
int WSPAPI HostWPUOpenCurrentThread(LPWSATHREADID thread, LPINT error);
int WSPAPI HostWPUCloseThread(LPWSATHREADID thread, LPINT error);

/// Ends the request behind `overlapped`, begun on a handle that Winsock made: `InternalHigh` becomes the byte
/// count, then `Internal` the status; the event is set; a packet goes to the handle's port unless the event's
/// low bit is set.
int WSPAPI HostWPUCompleteOverlappedRequest(SOCKET s, LPWSAOVERLAPPED overlapped, DWORD error, DWORD bytes,
                                            LPINT callError);

int WSPAPI HostWSCEnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length, LPINT error);
int WSPAPI HostWSCGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error);

}  // namespace winsock_host
