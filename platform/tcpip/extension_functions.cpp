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

/// Runs an extension function on the socket `s`: `body(socket)` returns 0 or the Winsock error.
template <class Body>
bool RunExtension(const char* name, int defaultError, SOCKET s, Body body) {
    int error = 0;
    const int result = RunOnSocket(name, defaultError, s, &error,
                                   [&](PlatformCall&, const SocketUse& socket) { return body(socket); });
    if (result != 0) SetLastError(static_cast<DWORD>(error));
    return result == 0;
}

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

/// The connection ends in good order while the socket goes on with a new kernel socket, bound to the same
/// address but to a port of its own, since the old one may be busy fading away.
int Recycle(Socket& socket) {
    std::lock_guard<std::mutex> guard(socket.lock);
    Endpoint local = AnyEndpoint(socket.v6);
    kernel::LocalName(socket.fd(), &local);
    local.port = 0;
    int kernelError = 0;
    const int fd = kernel::Create(socket.v6, socket.kind, &kernelError);
    // Not after the bind.
    int v6Only = 0;
    if (kernelError == 0 && socket.v6 && kernel::GetOption(socket.fd(), kernel::Option::V6Only, &v6Only) == 0)
        kernelError = kernel::SetOption(fd, kernel::Option::V6Only, v6Only);
    if (kernelError == 0) kernelError = kernel::Bind(fd, local);
    if (kernelError != 0) {
        if (fd >= 0) kernel::Close(fd);
        return WinsockErrorFromErrno(kernelError);
    }
    const int error = socket.ReplaceFdLocked(fd);
    if (error != 0) return error;
    socket.AssumeKernelMode(false);
    socket.state.store(State::Idle);
    socket.missingContext.store(MissingContext::None);
    socket.shutWhenSent = false;
    socket.sendShut.store(false);
    socket.receiveShut.store(false);
    socket.likelyReadable.store(false);
    socket.connectionReset.store(false);
    return 0;
}

int Disconnect(Socket& socket, DWORD flags) {
    if ((flags & ~static_cast<DWORD>(TF_REUSE_SOCKET)) != 0) return WSAEINVAL;
    if (!socket.IsStream() || socket.RefreshConnect() != State::Connected) return WSAENOTCONN;
    if ((flags & TF_REUSE_SOCKET) != 0) {
        kernel::Shutdown(socket.fd(), kernel::Direction::Send);
        return Recycle(socket);
    }
    const std::lock_guard<std::mutex> guard(socket.lock);
    socket.ShutSendLocked();
    return 0;
}

/// Sends pieces of memory in order as one request, or blocks until they are sent.
int SendPieces(const SocketUse& socket, std::vector<kernel::IoBuffer> pieces, OVERLAPPED* overlapped,
               DWORD flags) {
    int error = CheckSendState(*socket, false);
    if (error != 0) return error;
    if ((flags & TF_REUSE_SOCKET) != 0) return WSAEOPNOTSUPP;
    if (overlapped == nullptr) {
        std::vector<WSABUF> buffers;
        buffers.reserve(pieces.size());
        for (const kernel::IoBuffer& piece : pieces) {
            buffers.push_back({static_cast<ULONG>(piece.size), static_cast<CHAR*>(piece.data)});
        }
        BufferList list;
        DWORD sent = 0;
        error = list.Assign(buffers.data(), static_cast<DWORD>(buffers.size()), 0xFFFFFFFF);
        if (error == 0) error = SendNow(*socket, list, 0, nullptr, &sent);
        if (error == 0 && (flags & TF_DISCONNECT) != 0) error = Disconnect(*socket, 0);
        return error;
    }
    RequestPointer request = MakeRequest(socket.pointer(), {overlapped, nullptr, nullptr}, RequestKind::Send);
    if (request == nullptr) return WSAENOBUFS;
    request->buffers.swap(pieces);
    request->disconnectFlags = flags;
    return StartRequest(*socket, kWrite, std::move(request), nullptr, nullptr);
}

int TransmitBuffers(const SocketUse& socket, HANDLE file, const TRANSMIT_FILE_BUFFERS* buffers,
                    OVERLAPPED* overlapped, DWORD flags) {
    // There are no file handles on this platform, so nothing given here is one.
    if (file != nullptr) return WSA_INVALID_HANDLE;
    std::vector<kernel::IoBuffer> pieces;
    if (buffers != nullptr && buffers->HeadLength > 0) pieces.push_back({buffers->Head, buffers->HeadLength});
    if (buffers != nullptr && buffers->TailLength > 0) pieces.push_back({buffers->Tail, buffers->TailLength});
    return SendPieces(socket, std::move(pieces), overlapped, flags);
}

int TransmitElements(const SocketUse& socket, const TRANSMIT_PACKETS_ELEMENT* elements, DWORD count,
                     OVERLAPPED* overlapped, DWORD flags) {
    if (elements == nullptr && count > 0) return WSAEFAULT;
    std::vector<kernel::IoBuffer> pieces;
    for (DWORD i = 0; i < count; ++i) {
        if ((elements[i].dwElFlags & TP_ELEMENT_FILE) != 0) return WSA_INVALID_HANDLE;
        if ((elements[i].dwElFlags & TP_ELEMENT_MEMORY) == 0) return WSAEINVAL;
        pieces.push_back({elements[i].pBuffer, elements[i].cLength});
    }
    return SendPieces(socket, std::move(pieces), overlapped, flags);
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

BOOL WINAPI TcpipTransmitFile(SOCKET s, HANDLE file, DWORD, DWORD, LPOVERLAPPED overlapped,
                              LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    return RunExtension("lower TransmitFile", WSAENOBUFS, s, [&](const SocketUse& socket) {
        return TransmitBuffers(socket, file, buffers, overlapped, flags);
    });
}

BOOL WINAPI TcpipTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT elements, DWORD count, DWORD,
                                 LPOVERLAPPED overlapped, DWORD flags) {
    return RunExtension("lower TransmitPackets", WSAENOBUFS, s, [&](const SocketUse& socket) {
        return TransmitElements(socket, elements, count, overlapped, flags);
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
