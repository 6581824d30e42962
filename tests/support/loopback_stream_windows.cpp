// The seam on Windows: the machine's own Winsock, reached by address. The program's imports are routed to the
// Winsock host; addresses asked of the loader are not, so nothing here passes through the layer.
#include "tests/support/loopback_stream.h"

#include <winsock2.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

namespace {

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
    decltype(&::setsockopt) setsockopt = REAL(setsockopt);
    decltype(&::ioctlsocket) ioctlsocket = REAL(ioctlsocket);
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

/// A test can't go on without its other side.
void Require(bool succeeded, const char* what) {
    if (succeeded) return;
    std::fprintf(stderr, "%s: %d\n", what, System().error());
    std::abort();
}

int BoundSocket(std::uint16_t& port) {
    const SOCKET s = System().socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    Require(s != INVALID_SOCKET, "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(System().bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
    int length = sizeof address;
    Require(System().getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
    return static_cast<int>(s);
}

void CloseDescriptor(int descriptor) {
    if (descriptor >= 0) System().closesocket(ToSocket(descriptor));
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

/// Waits until the socket can be read from, `milliseconds` at most; -1 for ever.
bool IsReadable(int descriptor, int milliseconds) {
    fd_set set;
    set.fd_count = 1;
    set.fd_array[0] = ToSocket(descriptor);
    timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    return System().select(0, &set, nullptr, nullptr, milliseconds < 0 ? nullptr : &limit) > 0;
}

}  // namespace

LoopbackStream::~LoopbackStream() {
    CloseDescriptor(descriptor_);
}

LoopbackStream& LoopbackStream::operator=(LoopbackStream&& other) noexcept {
    if (this != &other) {
        CloseDescriptor(descriptor_);
        descriptor_ = other.descriptor_;
        other.descriptor_ = -1;
    }
    return *this;
}

bool LoopbackStream::ReadExactly(void* destination, std::size_t size) {
    auto* next = static_cast<char*>(destination);
    while (size > 0) {
        const std::size_t received = ReadSome(next, size);
        if (received == 0) return false;
        next += received;
        size -= received;
    }
    return true;
}

std::size_t LoopbackStream::ReadSome(void* destination, std::size_t size) {
    const int received =
        System().recv(ToSocket(descriptor_), static_cast<char*>(destination), static_cast<int>(size), 0);
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

bool LoopbackStream::WriteAll(const void* source, std::size_t size) {
    const auto* next = static_cast<const char*>(source);
    while (size > 0) {
        const int sent = System().send(ToSocket(descriptor_), next, static_cast<int>(size), 0);
        if (sent <= 0) return false;
        next += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

void LoopbackStream::Interrupt() {
    System().shutdown(ToSocket(descriptor_), SD_BOTH);
}

void LoopbackStream::ResetPeer() {
    const linger abort{1, 0};
    System().setsockopt(ToSocket(descriptor_), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort),
                        sizeof abort);
    CloseDescriptor(descriptor_);
    descriptor_ = -1;
}

LoopbackListener::LoopbackListener(int backlog) : descriptor_(BoundSocket(port_)) {
    Require(System().listen(ToSocket(descriptor_), backlog) == 0, "listen");
}

LoopbackListener::~LoopbackListener() {
    {
        const std::lock_guard<std::mutex> lock(TheWakers().mutex);
        TheWakers().portOfListener.erase(descriptor_);
    }
    CloseDescriptor(descriptor_);
}

bool LoopbackListener::Accept(LoopbackStream& stream) {
    sockaddr_in peer{};
    int length = sizeof peer;
    const SOCKET accepted =
        System().accept(ToSocket(descriptor_), reinterpret_cast<sockaddr*>(&peer), &length);
    if (accepted == INVALID_SOCKET) return false;
    LoopbackStream connection(static_cast<int>(accepted));
    {
        const std::lock_guard<std::mutex> lock(TheWakers().mutex);
        if (TheWakers().portOfListener[descriptor_] == peer.sin_port) return false;
    }
    const BOOL on = TRUE;
    System().setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
    stream = std::move(connection);
    return true;
}

bool LoopbackListener::HasConnection() const {
    return IsReadable(descriptor_, 0);
}

void LoopbackListener::Interrupt() {
    std::uint16_t port = 0;
    const int waker = BoundSocket(port);
    {
        const std::lock_guard<std::mutex> lock(TheWakers().mutex);
        TheWakers().portOfListener[descriptor_] = htons(port);
    }
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port_);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    System().connect(ToSocket(waker), reinterpret_cast<const sockaddr*>(&name), sizeof name);
    CloseDescriptor(waker);
}

ClosedPort::ClosedPort() : descriptor_(BoundSocket(port_)) {}

ClosedPort::~ClosedPort() {
    CloseDescriptor(descriptor_);
}
