// The half of the preload that speaks to Winsock. A socket is made non-blocking and stays so: the front waits
// on the kernel's descriptor, where signals and time-outs work as the program expects.
#include "platform/preload/bridge.h"

#include <dlfcn.h>
#include <mswsock.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/kernel/process_exit.h"
#include "platform/system/machine.h"
#include "platform/tcpip/kernel_descriptor.h"

namespace preload {
namespace {

// The kernel's number of the family; Winsock's AF_INET6 is another one.
constexpr unsigned short kKernelInet6 = 10;

struct ErrorRow {
    int winsock;
    int error;
};

constexpr ErrorRow kErrors[] = {
    {WSAEINTR, EINTR},
    {WSAEACCES, EACCES},
    {WSAEFAULT, EFAULT},
    {WSAEINVAL, EINVAL},
    {WSAEMFILE, EMFILE},
    {WSAEWOULDBLOCK, EAGAIN},
    {WSAEINPROGRESS, EINPROGRESS},
    {WSAEALREADY, EALREADY},
    {WSAENOTSOCK, EBADF},
    {WSAEDESTADDRREQ, EDESTADDRREQ},
    {WSAEMSGSIZE, EMSGSIZE},
    {WSAEPROTOTYPE, EPROTOTYPE},
    {WSAENOPROTOOPT, ENOPROTOOPT},
    {WSAEPROTONOSUPPORT, EPROTONOSUPPORT},
    {WSAESOCKTNOSUPPORT, ESOCKTNOSUPPORT},
    {WSAEOPNOTSUPP, EOPNOTSUPP},
    {WSAEPFNOSUPPORT, EPFNOSUPPORT},
    {WSAEAFNOSUPPORT, EAFNOSUPPORT},
    {WSAEADDRINUSE, EADDRINUSE},
    {WSAEADDRNOTAVAIL, EADDRNOTAVAIL},
    {WSAENETDOWN, ENETDOWN},
    {WSAENETUNREACH, ENETUNREACH},
    {WSAENETRESET, ENETRESET},
    {WSAECONNABORTED, ECONNABORTED},
    {WSAECONNRESET, ECONNRESET},
    {WSAENOBUFS, ENOBUFS},
    {WSAEISCONN, EISCONN},
    {WSAENOTCONN, ENOTCONN},
    {WSAESHUTDOWN, EPIPE},
    {WSAETIMEDOUT, ETIMEDOUT},
    {WSAECONNREFUSED, ECONNREFUSED},
    {WSAEHOSTDOWN, EHOSTDOWN},
    {WSAEHOSTUNREACH, EHOSTUNREACH},
    {WSASYSNOTREADY, kCannotStart},
    {WSAVERNOTSUPPORTED, kCannotStart},
    {WSANOTINITIALISED, kCannotStart},
    {WSAEINVALIDPROCTABLE, kCannotStart},
    {WSAEPROVIDERFAILEDINIT, kCannotStart},
};

int ErrnoOf(int winsockError) {
    if (winsockError == 0) return 0;
    for (const ErrorRow& row : kErrors) {
        if (row.winsock == winsockError) return row.error;
    }
    return EIO;
}

int LastErrno(int result) {
    return result == SOCKET_ERROR ? ErrnoOf(WSAGetLastError()) : 0;
}

/// An address in Winsock's layout, which differs by the family's number alone.
class WinsockAddress {
  public:
    WinsockAddress() = default;
    explicit WinsockAddress(const Address& address) {
        length = static_cast<int>(std::min<unsigned>(address.length, sizeof(storage_)));
        std::memcpy(&storage_, address.bytes, static_cast<std::size_t>(length));
        if (storage_.ss_family == static_cast<short>(kKernelInet6)) storage_.ss_family = AF_INET6;
    }

    void CopyTo(Address* address) {
        if (storage_.ss_family == AF_INET6) storage_.ss_family = static_cast<short>(kKernelInet6);
        address->length = static_cast<unsigned>(length);
        std::memcpy(address->bytes, &storage_, address->length);
    }
    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage_); }

    int length = sizeof(sockaddr_storage);

  private:
    sockaddr_storage storage_ = {};
};

/// 127.0.0.1 as the layer sees it, or 0. The layer asks nobody about loopback; with another address in its
/// place, which a route of the machine leads back, a program's traffic with itself is judged like any other.
ULONG LoopbackAlias() {
    static const ULONG alias = [] {
        const char* const text = std::getenv("QX_RUN_LOOPBACK_AS");
        return text != nullptr ? inet_addr(text) : 0;
    }();
    return alias;
}

void Exchange(sockaddr* address, ULONG from, ULONG to) {
    if (LoopbackAlias() == 0 || address->sa_family != AF_INET) return;
    auto& v4 = reinterpret_cast<sockaddr_in&>(*address);
    if (v4.sin_addr.s_addr == from) v4.sin_addr.s_addr = to;
}

/// A destination, as the layer is to see it.
void ShowToLayer(WinsockAddress* address) {
    Exchange(address->Get(), htonl(INADDR_LOOPBACK), LoopbackAlias());
}

void ShowToProgram(WinsockAddress* address) {
    Exchange(address->Get(), LoopbackAlias(), htonl(INADDR_LOOPBACK));
}

int HandOut(SOCKET s, MadeSocket* made) {
    int descriptor = -1;
    DWORD written = 0;
    if (WSAIoctl(s, tcpip::kHandOutDescriptor, nullptr, 0, &descriptor, sizeof(descriptor), &written, nullptr,
                 nullptr) != 0) {
        const int error = ErrnoOf(WSAGetLastError());
        closesocket(s);
        return error;
    }
    *made = {s, descriptor};
    return 0;
}

/// Loaded for good: a child of fork starts the same modules anew.
const void* LoadForGood(const std::string& path) {
    char expanded[PATH_MAX];
    const DWORD length = ExpandEnvironmentStringsA(path.c_str(), expanded, sizeof(expanded));
    if (length == 0 || length > sizeof(expanded)) return nullptr;
    void* const library = dlopen(expanded, RTLD_NOW | RTLD_LOCAL);
    return library != nullptr ? dlsym(library, "WSPStartup") : nullptr;
}

std::size_t Load(const void** addresses, std::size_t capacity) {
    const auto machine = platform::TheMachine();
    const void* const found[] = {
        reinterpret_cast<const void*>(&Load), reinterpret_cast<const void*>(&WSAStartup),
        LoadForGood(machine->baseProvider), machine->layer.empty() ? nullptr : LoadForGood(machine->layer)};
    std::size_t count = 0;
    for (const void* address : found) {
        if (address != nullptr && count < capacity) addresses[count++] = address;
    }
    return count;
}

int Start() {
    // The program's threads go on while it ends, as those of any program of this kernel.
    platform::LeaveProcessEndAlone();
    WSADATA data;
    return ErrnoOf(WSAStartup(MAKEWORD(2, 2), &data)) == 0 ? 0 : kCannotStart;
}

int Make(bool v6, bool stream, MadeSocket* made) {
    const SOCKET s = socket(v6 ? AF_INET6 : AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (s == INVALID_SOCKET) return ErrnoOf(WSAGetLastError());
    u_long on = 1;
    ioctlsocket(s, static_cast<LONG>(FIONBIO), &on);
    return HandOut(s, made);
}

int Adopt(WinsockSocket socket, int duplicate) {
    DWORD written = 0;
    return LastErrno(WSAIoctl(socket, tcpip::kTakeDescriptor, &duplicate, sizeof(duplicate), nullptr, 0,
                              &written, nullptr, nullptr));
}

void Close(WinsockSocket socket) {
    closesocket(socket);
}

int Bind(WinsockSocket socket, const Address& local) {
    WinsockAddress address(local);
    return LastErrno(bind(socket, address.Get(), address.length));
}

int Connect(WinsockSocket socket, const Address& peer) {
    WinsockAddress address(peer);
    ShowToLayer(&address);
    return LastErrno(connect(socket, address.Get(), address.length));
}

int Listen(WinsockSocket socket, int backlog) {
    return LastErrno(listen(socket, backlog));
}

int Accept(WinsockSocket socket, MadeSocket* made, Address* peer) {
    WinsockAddress address;
    const SOCKET s = accept(socket, address.Get(), &address.length);
    if (s == INVALID_SOCKET) return ErrnoOf(WSAGetLastError());
    address.CopyTo(peer);
    return HandOut(s, made);
}

int Shutdown(WinsockSocket socket, Ends ends) {
    const int how = ends == Ends::Receive ? SD_RECEIVE : ends == Ends::Send ? SD_SEND : SD_BOTH;
    return LastErrno(shutdown(socket, how));
}

int LocalName(WinsockSocket socket, Address* name) {
    WinsockAddress address;
    const int error = LastErrno(getsockname(socket, address.Get(), &address.length));
    if (error == 0) address.CopyTo(name);
    return error;
}

int PeerName(WinsockSocket socket, Address* name) {
    WinsockAddress address;
    const int error = LastErrno(getpeername(socket, address.Get(), &address.length));
    ShowToProgram(&address);
    if (error == 0) address.CopyTo(name);
    return error;
}

int TakeError(WinsockSocket socket, int* pending) {
    int value = 0;
    int length = sizeof(value);
    const int error =
        LastErrno(getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&value), &length));
    *pending = ErrnoOf(value);
    return error;
}

int SetOption(WinsockSocket socket, SharedOption option, int value) {
    constexpr int kLevels[] = {SOL_SOCKET, SOL_SOCKET, SOL_SOCKET, IPPROTO_TCP, SOL_SOCKET, SOL_SOCKET};
    constexpr int kNames[] = {SO_KEEPALIVE, SO_BROADCAST, SO_OOBINLINE, TCP_NODELAY, SO_SNDBUF, SO_RCVBUF};
    const auto index = static_cast<std::size_t>(option);
    return LastErrno(setsockopt(socket, kLevels[index], kNames[index], reinterpret_cast<const char*>(&value),
                                sizeof(value)));
}

int SetLinger(WinsockSocket socket, bool on, int seconds) {
    const linger value = {static_cast<USHORT>(on ? 1 : 0), static_cast<USHORT>(std::min(seconds, 0xFFFF))};
    return LastErrno(
        setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&value), sizeof(value)));
}

/// The pieces as Winsock takes them: a short list without memory of its own, each length within 31 bits.
class Buffers {
  public:
    Buffers(const Piece* pieces, std::size_t count) {
        WSABUF* target = inline_;
        if (count > kInline) {
            long_.resize(count);
            target = long_.data();
        }
        std::size_t room = INT_MAX;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t size = std::min(pieces[i].size, room);
            target[i] = {static_cast<ULONG>(size), static_cast<CHAR*>(pieces[i].data)};
            room -= size;
        }
        count_ = static_cast<DWORD>(count);
    }
    WSABUF* Get() { return count_ > kInline ? long_.data() : inline_; }
    DWORD count() const { return count_; }

  private:
    static constexpr std::size_t kInline = 16;
    WSABUF inline_[kInline];
    std::vector<WSABUF> long_;
    DWORD count_ = 0;
};

Transfer Send(WinsockSocket socket, const Piece* pieces, std::size_t count, unsigned flags,
              const Address* to) {
    Buffers buffers(pieces, count);
    DWORD sent = 0;
    const DWORD winsockFlags = (flags & kOutOfBandFlag) != 0 ? MSG_OOB : 0;
    int result;
    if (to != nullptr) {
        WinsockAddress address(*to);
        ShowToLayer(&address);
        result = WSASendTo(socket, buffers.Get(), buffers.count(), &sent, winsockFlags, address.Get(),
                           address.length, nullptr, nullptr);
    } else {
        result = WSASend(socket, buffers.Get(), buffers.count(), &sent, winsockFlags, nullptr, nullptr);
    }
    Transfer transfer;
    transfer.error = LastErrno(result);
    transfer.bytes = sent;
    return transfer;
}

Transfer Receive(WinsockSocket socket, const Piece* pieces, std::size_t count, unsigned flags,
                 Address* from) {
    Buffers buffers(pieces, count);
    DWORD received = 0;
    DWORD winsockFlags =
        ((flags & kOutOfBandFlag) != 0 ? MSG_OOB : 0) | ((flags & kPeekFlag) != 0 ? MSG_PEEK : 0);
    WinsockAddress address;
    const int result =
        from != nullptr
            ? WSARecvFrom(socket, buffers.Get(), buffers.count(), &received, &winsockFlags, address.Get(),
                          &address.length, nullptr, nullptr)
            : WSARecv(socket, buffers.Get(), buffers.count(), &received, &winsockFlags, nullptr, nullptr);
    Transfer transfer;
    const int winsockError = result == SOCKET_ERROR ? WSAGetLastError() : 0;
    transfer.truncated = winsockError == WSAEMSGSIZE || (winsockFlags & MSG_PARTIAL) != 0;
    transfer.error = winsockError == WSAEMSGSIZE ? 0 : ErrnoOf(winsockError);
    transfer.bytes = received;
    if (transfer.error == 0 && from != nullptr) {
        ShowToProgram(&address);
        address.CopyTo(from);
    }
    return transfer;
}

constexpr Bridge kBridge = {Load,      Start,     Make,      Adopt,    Close,     Bind,
                            Connect,   Listen,    Accept,    Shutdown, LocalName, PeerName,
                            TakeError, SetOption, SetLinger, Send,     Receive};

}  // namespace
}  // namespace preload

extern "C" __attribute__((visibility("default"))) const preload::Bridge* QxPreloadBridge() {
    return &preload::kBridge;
}
