// The extension functions. Applications call them directly, so they report their error as the thread's last
// error.
#include <mswsock.h>

#include <cstring>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/transfer.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

/// Behind each address Windows wants room that it uses itself.
constexpr DWORD kAddressOverhead = 16;

int AcceptExtended(const SocketUse& listener, SOCKET acceptingHandle, char* output, DWORD receiveLength,
                   DWORD localLength, DWORD remoteLength, DWORD* received, OVERLAPPED* overlapped) {
    if (overlapped == nullptr) return WSA_INVALID_PARAMETER;
    const SocketUse accepting(acceptingHandle);
    if (!accepting) return WSAENOTSOCK;
    const DWORD needed = static_cast<DWORD>(AddressLength(listener->v6)) + kAddressOverhead;
    if (localLength < needed || remoteLength < needed) return WSAEINVAL;
    if (output == nullptr) return WSAEFAULT;
    if (listener->state.load() != State::Listening || accepting->v6 != listener->v6) return WSAEINVAL;
    if (!accepting->IsStream() || accepting->state.load() != State::Idle || accepting->bound.load())
        return WSAEINVAL;
    RequestPointer request =
        MakeRequest(listener.pointer(), {overlapped, nullptr, nullptr}, RequestKind::Accept);
    if (request == nullptr) return WSAENOBUFS;
    // From now on the kernel must not block the reactor in an accept.
    const int error = listener->SetKernelMode(true);
    if (error != 0) return error;
    {
        std::lock_guard<std::mutex> guard(accepting->lock);
        if (accepting->acceptListener.lock() != nullptr) return WSAEINVAL;  // another accept waits for it
        accepting->acceptListener = listener.pointer();
    }
    request->accepting = accepting.pointer();
    request->output = output;
    request->receiveLength = receiveLength;
    request->localLength = localLength;
    request->remoteLength = remoteLength;
    const int result = StartRequest(*listener, kRead, std::move(request), received, nullptr);
    if (result != 0 && result != WSA_IO_PENDING) ReleaseAccepting(*accepting);
    return result;
}

int ConnectExtended(const SocketUse& socket, const sockaddr* name, int namelen, void* data, DWORD dataLength,
                    DWORD* sent, OVERLAPPED* overlapped) {
    if (overlapped == nullptr) return WSA_INVALID_PARAMETER;
    Endpoint peer;
    int error = ReadAddress(name, namelen, socket->v6, &peer);
    if (error != 0) return error;
    if (!socket->IsStream() || !socket->bound.load()) return WSAEINVAL;
    RequestPointer request =
        MakeRequest(socket.pointer(), {overlapped, nullptr, nullptr}, RequestKind::Connect);
    if (request == nullptr) return WSAENOBUFS;
    if (data != nullptr && dataLength > 0) request->buffers.push_back({data, dataLength});
    error = ConnectStream(*socket, peer, false);
    if (error != 0 && error != WSAEWOULDBLOCK) return error;
    return StartRequest(*socket, kWrite, std::move(request), sent, nullptr);
}

int Disconnect(Socket& socket, DWORD flags) {
    if ((flags & ~static_cast<DWORD>(TF_REUSE_SOCKET)) != 0) return WSAEINVAL;
    if (!socket.IsStream() || socket.RefreshConnect() != State::Connected) return WSAENOTCONN;
    const std::lock_guard<std::mutex> guard(socket.lock);
    return socket.DisconnectLocked(flags | TF_DISCONNECT);
}

int ReceiveMessage(const SocketUse& socket, WSAMSG* message, DWORD* received,
                   const OverlappedCall& overlapped) {
    if (message == nullptr) return WSAEFAULT;
    if (socket->IsStream()) return WSAEOPNOTSUPP;
    if (message->name != nullptr && message->namelen < AddressLength(socket->v6)) return WSAEFAULT;
    BufferList list;
    unsigned flags = 0;
    int error = list.Assign(message->lpBuffers, message->dwBufferCount, 0xFFFFFFFF);
    if (error == 0) error = ReceiveFlags(*socket, message->dwFlags & MSG_PEEK, &flags);
    if (error == 0) error = CheckReceiveState(*socket);
    if (error != 0) return error;
    if (overlapped.overlapped != nullptr && socket->overlapped) {
        RequestPointer request = MakeRequest(socket.pointer(), overlapped, RequestKind::ReceiveMessage);
        if (request == nullptr) return WSAENOBUFS;
        request->buffers.assign(list.data(), list.data() + list.count());
        request->flags = flags;
        request->message = message;
        return StartRequest(*socket, kRead, std::move(request), received, nullptr);
    }
    if (received == nullptr) return WSAEFAULT;
    Endpoint sender;
    error = ReceiveNow(*socket, list, flags, &sender, received);
    if (error != 0 && error != WSAEMSGSIZE) return error;
    if (message->name != nullptr) WriteAddress(sender, message->name, &message->namelen);
    message->dwFlags = error == WSAEMSGSIZE ? MSG_TRUNC : 0;
    message->Control.len = 0;
    return error;
}

struct ExtensionRow {
    GUID id;
    void* function;
};

/// Windows' own way to hand out functions of many types.
template <class Function>
void* AddressOf(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

BOOL WINAPI TcpipAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                          DWORD localLength, DWORD remoteLength, LPDWORD received, LPOVERLAPPED overlapped) {
    return RunExtension("lower AcceptEx", WSAENOBUFS, listener, [&](const SocketUse& socket) {
        return AcceptExtended(socket, accepting, static_cast<char*>(output), receiveLength, localLength,
                              remoteLength, received, overlapped);
    });
}

VOID WINAPI TcpipGetAcceptExSockaddrs(PVOID output, DWORD receiveLength, DWORD localLength, DWORD,
                                      sockaddr** local, LPINT localSize, sockaddr** remote,
                                      LPINT remoteSize) {
    char* at = static_cast<char*>(output) + receiveLength;
    const auto read = [](char* name, sockaddr** address, LPINT size) {
        ADDRESS_FAMILY family;
        std::memcpy(&family, name, sizeof(family));
        *address = reinterpret_cast<sockaddr*>(name);
        *size = AddressLength(family == AF_INET6);
    };
    read(at, local, localSize);
    read(at + localLength, remote, remoteSize);
}

BOOL WINAPI TcpipConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID data, DWORD dataLength,
                           LPDWORD sent, LPOVERLAPPED overlapped) {
    return RunExtension("lower ConnectEx", WSAENETUNREACH, s, [&](const SocketUse& socket) {
        return ConnectExtended(socket, name, namelen, data, dataLength, sent, overlapped);
    });
}

BOOL WINAPI TcpipDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD) {
    return RunExtension("lower DisconnectEx", WSAENOTCONN, s, [&](const SocketUse& socket) {
        const int error = Disconnect(*socket, flags);
        if (error != 0 || overlapped == nullptr) return error;
        return CompleteAtOnce(socket.pointer(), {overlapped, nullptr, nullptr}, 0);
    });
}

INT WINAPI TcpipRecvMsg(SOCKET s, LPWSAMSG message, LPDWORD received, LPOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    const bool done = RunExtension("lower WSARecvMsg", WSAECONNRESET, s, [&](const SocketUse& socket) {
        return ReceiveMessage(socket, message, received, {overlapped, routine, nullptr});
    });
    return done ? 0 : SOCKET_ERROR;
}

INT WINAPI TcpipSendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD sent, LPOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    int error = WSAEFAULT;
    if (message != nullptr) {
        // Control data is not provided; without it this is a send to the named peer.
        error = message->Control.len > 0 ? WSAEINVAL : 0;
        if (error == 0 &&
            TcpipSendTo(s, message->lpBuffers, message->dwBufferCount, sent, flags, message->name,
                        message->namelen, overlapped, routine, nullptr, &error) == 0) {
            return 0;
        }
    }
    SetLastError(static_cast<DWORD>(error));
    return SOCKET_ERROR;
}

void* FindExtensionFunction(const GUID& id) {
    static const ExtensionRow kRows[] = {
        {WSAID_ACCEPTEX, AddressOf(TcpipAcceptEx)},
        {WSAID_GETACCEPTEXSOCKADDRS, AddressOf(TcpipGetAcceptExSockaddrs)},
        {WSAID_CONNECTEX, AddressOf(TcpipConnectEx)},
        {WSAID_DISCONNECTEX, AddressOf(TcpipDisconnectEx)},
        {WSAID_TRANSMITFILE, AddressOf(TcpipTransmitFile)},
        {WSAID_TRANSMITPACKETS, AddressOf(TcpipTransmitPackets)},
        {WSAID_WSARECVMSG, AddressOf(TcpipRecvMsg)},
        {WSAID_WSASENDMSG, AddressOf(TcpipSendMsg)},
    };
    for (const ExtensionRow& row : kRows) {
        if (row.id == id) return row.function;
    }
    return nullptr;
}

}  // namespace tcpip
