// The upcalls under their public names, for tests that hand a provider its table: Winsock's own library
// exports only one of them.
#include <winsock2.h>

#include <ws2spi.h>

#include "platform/winsock/upcalls.h"

using namespace winsock_host;

extern "C" {

BOOL WSPAPI WPUCloseEvent(WSAEVENT event, LPINT error) {
    return HostWPUCloseEvent(event, error);
}
int WSPAPI WPUCloseSocketHandle(SOCKET s, LPINT error) {
    return HostWPUCloseSocketHandle(s, error);
}
WSAEVENT WSPAPI WPUCreateEvent(LPINT error) {
    return HostWPUCreateEvent(error);
}
SOCKET WSPAPI WPUCreateSocketHandle(DWORD entry, DWORD_PTR context, LPINT error) {
    return HostWPUCreateSocketHandle(entry, context, error);
}
int WSPAPI WPUFDIsSet(SOCKET s, fd_set* set) {
    return HostWPUFDIsSet(s, set);
}
int WSPAPI WPUGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error) {
    return HostWPUGetProviderPath(provider, path, length, error);
}
SOCKET WSPAPI WPUModifyIFSHandle(DWORD entry, SOCKET proposed, LPINT error) {
    return HostWPUModifyIFSHandle(entry, proposed, error);
}
BOOL WSPAPI WPUPostMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    return HostWPUPostMessage(window, message, wParam, lParam);
}
int WSPAPI WPUQueryBlockingCallback(DWORD entry, LPBLOCKINGCALLBACK* callback, PDWORD_PTR context,
                                    LPINT error) {
    return HostWPUQueryBlockingCallback(entry, callback, context, error);
}
int WSPAPI WPUQuerySocketHandleContext(SOCKET s, PDWORD_PTR context, LPINT error) {
    return HostWPUQuerySocketHandleContext(s, context, error);
}
int WSPAPI WPUQueueApc(LPWSATHREADID thread, LPWSAUSERAPC procedure, DWORD_PTR context, LPINT error) {
    return HostWPUQueueApc(thread, procedure, context, error);
}
BOOL WSPAPI WPUResetEvent(WSAEVENT event, LPINT error) {
    return HostWPUResetEvent(event, error);
}
BOOL WSPAPI WPUSetEvent(WSAEVENT event, LPINT error) {
    return HostWPUSetEvent(event, error);
}
int WSPAPI WPUOpenCurrentThread(LPWSATHREADID thread, LPINT error) {
    return HostWPUOpenCurrentThread(thread, error);
}
int WSPAPI WPUCloseThread(LPWSATHREADID thread, LPINT error) {
    return HostWPUCloseThread(thread, error);
}

}  // extern "C"
