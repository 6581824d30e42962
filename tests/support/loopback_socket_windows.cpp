// The machine's own Winsock, reached by address. The program's imports are routed to the
// Winsock host; addresses asked of the loader are not, so nothing here passes through the layer.
#include "tests/support/loopback_socket.h"

#include <winsock2.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

namespace loopback_socket {

namespace {

/// Handles are multiples of the first; nobody here has one beyond the second.
constexpr SOCKET kHandleStep = 4;
constexpr SOCKET kMostHandles = 8192;

HMODULE SystemWinsock() {
    static const HMODULE module = LoadLibraryA("ws2_32.dll");
    return module;
}

/// The system's function of that name, with the type of its declaration.
template <class Function>
Function* Real(const char* name, Function*) {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(SystemWinsock(), name)));
}

#define REAL(function) Real(#function, &::function)

/// The functions used here, found at the first use; Winsock stays started until the process ends.
struct Sockets {
    decltype(&::socket) socket = REAL(socket);
    decltype(&::closesocket) closesocket = REAL(closesocket);
    decltype(&::bind) bind = REAL(bind);
    decltype(&::listen) listen = REAL(listen);
    decltype(&::accept) accept = REAL(accept);
    decltype(&::connect) connect = REAL(connect);
    decltype(&::getsockname) getsockname = REAL(getsockname);
    decltype(&::getsockopt) getsockopt = REAL(getsockopt);
    decltype(&::setsockopt) setsockopt = REAL(setsockopt);
    decltype(&::shutdown) shutdown = REAL(shutdown);
    decltype(&::select) select = REAL(select);
    decltype(&::send) send = REAL(send);
    decltype(&::recv) recv = REAL(recv);
    decltype(&::WSAGetLastError) error = REAL(WSAGetLastError);

    Sockets() {
        WSADATA data;
        REAL(WSAStartup)(MAKEWORD(2, 2), &data);
    }
};

const Sockets& System() {
    static const Sockets sockets;
    return sockets;
}

SOCKET ToSocket(int descriptor) {
    return static_cast<SOCKET>(static_cast<unsigned int>(descriptor));
}

void Require(bool succeeded, const char* what) {
    if (succeeded) return;
    std::fprintf(stderr, "%s: %d\n", what, System().error());
    std::abort();
}

/// A listener can't be shut down as a stream can. It is woken by a connection from a port that is put down
/// here first.
struct Wakers {
    std::mutex mutex;
    std::map<int, u_short> portOfListener;  // in network order
};

Wakers& TheWakers() {
    static Wakers& wakers = *new Wakers;
    return wakers;
}

bool IsWaker(int listener, u_short port) {
    const std::lock_guard<std::mutex> lock(TheWakers().mutex);
    const auto waker = TheWakers().portOfListener.find(listener);
    return waker != TheWakers().portOfListener.end() && waker->second == port;
}

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

int Bind(std::uint16_t& port) {
    const SOCKET s = System().socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    Require(s != INVALID_SOCKET, "socket");
    sockaddr_in address = Loopback(0);
    Require(System().bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
    int length = sizeof(address);
    Require(System().getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
    return static_cast<int>(s);
}

int Connect(std::uint16_t port) {
    const SOCKET s = System().socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    Require(s != INVALID_SOCKET, "socket");
    const sockaddr_in address = Loopback(port);
    if (System().connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return static_cast<int>(s);
    System().closesocket(s);
    return -1;
}

std::uint16_t FindOwnListener(std::uint16_t first, std::uint16_t limit) {
    for (SOCKET s = kHandleStep; s < kMostHandles; s += kHandleStep) {
        BOOL listens = FALSE;
        int size = sizeof(listens);
        auto* const value = reinterpret_cast<char*>(&listens);
        if (System().getsockopt(s, SOL_SOCKET, SO_ACCEPTCONN, value, &size) != 0 || !listens) continue;
        sockaddr_in address{};
        size = sizeof(address);
        System().getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
        const std::uint16_t port = ntohs(address.sin_port);
        if (port >= first && port < limit) return port;
    }
    return 0;
}

void Close(int descriptor) {
    if (descriptor < 0) return;
    {
        const std::lock_guard<std::mutex> lock(TheWakers().mutex);
        TheWakers().portOfListener.erase(descriptor);
    }
    System().closesocket(ToSocket(descriptor));
}

std::size_t Receive(int descriptor, void* destination, std::size_t size) {
    const int received =
        System().recv(ToSocket(descriptor), static_cast<char*>(destination), static_cast<int>(size), 0);
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

std::size_t Send(int descriptor, const void* source, std::size_t size) {
    const int sent =
        System().send(ToSocket(descriptor), static_cast<const char*>(source), static_cast<int>(size), 0);
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

void Shutdown(int descriptor) {
    System().shutdown(ToSocket(descriptor), SD_BOTH);
}

void StopReading(int descriptor) {
    System().shutdown(ToSocket(descriptor), SD_RECEIVE);
}

int Reset(int descriptor) {
    const linger abort{1, 0};
    System().setsockopt(ToSocket(descriptor), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort),
                        sizeof(abort));
    Close(descriptor);
    return -1;
}

void Listen(int descriptor, int backlog) {
    Require(System().listen(ToSocket(descriptor), backlog) == 0, "listen");
}

int Accept(int listener) {
    sockaddr_in peer{};
    int length = sizeof(peer);
    const SOCKET accepted = System().accept(ToSocket(listener), reinterpret_cast<sockaddr*>(&peer), &length);
    if (accepted == INVALID_SOCKET) return -1;
    if (IsWaker(listener, peer.sin_port)) {
        System().closesocket(accepted);
        return -1;
    }
    const BOOL on = TRUE;
    System().setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on));
    return static_cast<int>(accepted);
}

bool HasConnection(int listener) {
    fd_set set;
    set.fd_count = 1;
    set.fd_array[0] = ToSocket(listener);
    timeval now = {0, 0};
    return System().select(0, &set, nullptr, nullptr, &now) > 0;
}

void InterruptAccept(int listener, std::uint16_t port) {
    std::uint16_t wakersPort = 0;
    const int waker = Bind(wakersPort);
    {
        const std::lock_guard<std::mutex> lock(TheWakers().mutex);
        TheWakers().portOfListener[listener] = htons(wakersPort);
    }
    const sockaddr_in name = Loopback(port);
    System().connect(ToSocket(waker), reinterpret_cast<const sockaddr*>(&name), sizeof(name));
    Close(waker);
}

}  // namespace loopback_socket
