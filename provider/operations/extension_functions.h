// The extension functions that the layer gives to applications in place of the lower provider's. Applications
// call them directly, so their error goes into WSASetLastError. Each finds the lower provider's function by
// itself, and fails with WSAEFAULT when there is none.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <mswsock.h>
#include <windows.h>

struct SocketContext;

/// One extension function that the layer provides itself.
struct ExtensionFunction {
    GUID Id;
    /// The layer's own implementation, as the bits of the function's address.
    ULONG_PTR (*LayerAddress)();
    /// Fetches the lower provider's function of that id into the context's entry; see LoadLowerExtension.
    bool (*LoadLower)(SocketContext* context, const GUID& id);
};

/// Looks an extension function up by its id; null when the layer has none for it.
const ExtensionFunction* FindExtensionFunction(const GUID& id);

/// Whether this is the one known function that applications get from the lower provider.
bool IsForwardedExtension(const GUID& id);

/// Fetches the lower provider's function into the context's entry unless it is there. False when it has none.
/// The context is referenced by the caller.
inline bool LoadLowerExtension(SocketContext* context, const ExtensionFunction& function) {
    return function.LoadLower(context, function.Id);
}

BOOL WINAPI LayerTransmitFile(SOCKET s, HANDLE file, DWORD bytesToWrite, DWORD bytesPerSend,
                              LPOVERLAPPED overlapped, LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags);
BOOL WINAPI LayerAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                          DWORD localLength, DWORD remoteLength, LPDWORD bytesReceived,
                          LPOVERLAPPED overlapped);
BOOL WINAPI LayerConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID sendBuffer, DWORD sendLength,
                           LPDWORD bytesSent, LPOVERLAPPED overlapped);
BOOL WINAPI LayerDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD reserved);
BOOL WINAPI LayerTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT packets, DWORD count, DWORD sendSize,
                                 LPOVERLAPPED overlapped, DWORD flags);
INT WINAPI LayerWSARecvMsg(SOCKET s, LPWSAMSG message, LPDWORD bytesReceived, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine);
