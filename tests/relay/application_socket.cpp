// See application_socket.h.
#include "tests/relay/application_socket.h"

#include <mswsock.h>

#include <thread>
#include <utility>

namespace {

/// One overlapped request, waited for.
class WaitedRequest {
  public:
    WaitedRequest() { overlapped_.hEvent = WSACreateEvent(); }
    ~WaitedRequest() { WSACloseEvent(overlapped_.hEvent); }
    WaitedRequest(const WaitedRequest&) = delete;
    WaitedRequest& operator=(const WaitedRequest&) = delete;

    WSAOVERLAPPED* Record() { return &overlapped_; }

    /// The end of a request that was taken, or not. Its error, or 0.
    int End(SOCKET s, bool taken, DWORD* bytes) {
        if (!taken && WSAGetLastError() != WSA_IO_PENDING) return WSAGetLastError();
        DWORD flags = 0;
        return WSAGetOverlappedResult(s, &overlapped_, bytes, TRUE, &flags) ? 0 : WSAGetLastError();
    }

  private:
    WSAOVERLAPPED overlapped_{};
};

int ConnectOverlapped(SOCKET s, const sockaddr_in& destination) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0) return WSAGetLastError();
    GUID id = WSAID_CONNECTEX;
    LPFN_CONNECTEX connectEx = nullptr;
    DWORD bytes = 0;
    if (WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &connectEx, sizeof(connectEx),
                 &bytes, nullptr, nullptr) != 0)
        return WSAGetLastError();
    WaitedRequest request;
    const BOOL taken = connectEx(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination),
                                 nullptr, 0, nullptr, request.Record());
    if (const int error = request.End(s, taken != FALSE, &bytes); error != 0) return error;
    return setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0) == 0 ? 0 : WSAGetLastError();
}

/// Calls connect again until it says that the socket is connected.
int ConnectPolled(SOCKET s, const sockaddr_in& destination) {
    u_long nonBlocking = 1;
    ioctlsocket(s, static_cast<LONG>(FIONBIO), &nonBlocking);
    for (;;) {
        const int result = connect(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
        const int error = result == 0 ? WSAEISCONN : WSAGetLastError();
        if (error == WSAEISCONN) break;
        if (error != WSAEWOULDBLOCK && error != WSAEALREADY && error != WSAEINVAL) return error;
        std::this_thread::yield();
    }
    nonBlocking = 0;
    return ioctlsocket(s, static_cast<LONG>(FIONBIO), &nonBlocking) == 0 ? 0 : WSAGetLastError();
}

}  // namespace

struct ApplicationSocket::PostedReceive {
    WaitedRequest request;
    bool taken = false;
    int callError = 0;
};

ApplicationSocket::ApplicationSocket(Kind kind)
    : kind_(kind),
      socket_(WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                         kind == Kind::kWithoutOverlapped ? 0 : WSA_FLAG_OVERLAPPED)) {}

ApplicationSocket::~ApplicationSocket() {
    Close();
}

int ApplicationSocket::Connect(const sockaddr_in& destination) {
    if (kind_ == Kind::kOverlapped) return ConnectOverlapped(socket_, destination);
    if (kind_ == Kind::kPolled) return ConnectPolled(socket_, destination);
    const int result = connect(socket_, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
    return result == 0 ? 0 : WSAGetLastError();
}

bool ApplicationSocket::Send(const char* bytes, std::size_t size) {
    while (size > 0) {
        DWORD sent = 0;
        WSABUF buffer = {static_cast<ULONG>(size), const_cast<char*>(bytes)};
        if (kind_ == Kind::kOverlapped) {
            WaitedRequest request;
            const int result = WSASend(socket_, &buffer, 1, nullptr, 0, request.Record(), nullptr);
            error_ = request.End(socket_, result == 0, &sent);
        } else {
            const int result = WSASend(socket_, &buffer, 1, &sent, 0, nullptr, nullptr);
            error_ = result == 0 ? 0 : WSAGetLastError();
        }
        if (error_ != 0) return false;
        bytes += sent;
        size -= sent;
    }
    return true;
}

std::size_t ApplicationSocket::Receive(char* bytes, std::size_t size) {
    BeginReceive(bytes, size);
    return EndReceive();
}

void ApplicationSocket::BeginReceive(char* bytes, std::size_t size) {
    receiving_ = {static_cast<ULONG>(size), bytes};
    if (kind_ != Kind::kOverlapped) return;
    DWORD flags = 0;
    posted_ = std::make_unique<PostedReceive>();
    posted_->taken =
        WSARecv(socket_, &receiving_, 1, nullptr, &flags, posted_->request.Record(), nullptr) == 0;
    posted_->callError = posted_->taken ? 0 : WSAGetLastError();
}

std::size_t ApplicationSocket::EndReceive() {
    DWORD received = 0;
    DWORD flags = 0;
    if (kind_ == Kind::kOverlapped) {
        WSASetLastError(posted_->callError);
        error_ = posted_->request.End(socket_, posted_->taken, &received);
    } else {
        const int result = WSARecv(socket_, &receiving_, 1, &received, &flags, nullptr, nullptr);
        error_ = result == 0 ? 0 : WSAGetLastError();
    }
    return error_ == 0 ? received : 0;
}

void ApplicationSocket::Close() {
    const SOCKET s = std::exchange(socket_, INVALID_SOCKET);
    if (s != INVALID_SOCKET) closesocket(s);
}
