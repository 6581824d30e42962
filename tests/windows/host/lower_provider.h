// The base provider of the Windows tests: the thirty operations straight over the system's Winsock, which no
// route ever leads away, with the machine's routes applied and a fault point on each operation. Its sockets
// are the system's. Any thread may call; the lists of open sockets have a leaf lock.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include <vector>

#include <shared_mutex>

#include "platform/kernel/fault_points.h"

namespace lower {

using platform::PlatformCall;

/// What is known of an open socket.
struct SocketRecord {
    WSAPROTOCOL_INFOW info{};
    int type = 0;
};

/// The record of an open socket; false when it is none of this provider.
bool FindSocket(SOCKET s, SocketRecord* record);

/// Held shared while an overlapped request is handed to the system, so that a closing socket has either all
/// of it or nothing.
std::shared_mutex& HandingOver();

/// Hands a request on an open socket to the system; without `overlapped` the call may block and is simply
/// made.
template <class Result, class Call>
Result HandOver(SOCKET s, LPWSAOVERLAPPED overlapped, Result failure, Call call);

/// Runs an operation behind its fault point. What it fails with is in the thread's last error.
template <class Result, class Operation>
Result Run(const char* name, DWORD fault, Result failure, LPINT error, Operation operation) {
    const PlatformCall call(name, fault);
    if (call.Faulted()) {
        *error = static_cast<int>(call.error());
        return failure;
    }
    const Result result = operation(call);
    if (result == failure) *error = WSAGetLastError();
    return result;
}

/// A caller's buffers, cut to what a short count of the call's fault point leaves of them.
class LimitedBuffers {
  public:
    LimitedBuffers(const PlatformCall& call, LPWSABUF buffers, DWORD count);
    LPWSABUF data() { return data_; }
    DWORD count() const { return count_; }

  private:
    std::vector<WSABUF> cut_;
    LPWSABUF data_;
    DWORD count_;
};

/// Fails with a Winsock error.
template <class Result>
Result FailWith(int error, Result failure) {
    WSASetLastError(error);
    return failure;
}

template <class Result, class Call>
Result HandOver(SOCKET s, LPWSAOVERLAPPED overlapped, Result failure, Call call) {
    if (overlapped == nullptr) return call();
    Result result = failure;
    int error = 0;
    {
        const std::shared_lock<std::shared_mutex> lock(HandingOver());
        SocketRecord record;
        result = FindSocket(s, &record) ? call() : FailWith(WSAENOTSOCK, failure);
        error = WSAGetLastError();
    }
    // A lock that somebody waits for may make its event when it is released, which clears the last error: a
    // request under way would look done.
    WSASetLastError(error);
    return result;
}

/// Answers a request for an extension function: 0, or SOCKET_ERROR with the last error.
int GiveExtension(SOCKET s, const GUID& id, LPVOID out, DWORD outLength, LPDWORD returned);

// Operations with routes: lower_transfer.cpp
int WSPAPI Connect(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                   LPQOS socketQos, LPQOS groupQos, LPINT error);
int WSPAPI GetPeerName(SOCKET s, sockaddr* name, LPINT length, LPINT error);
int WSPAPI SendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags, const sockaddr* to,
                  int toLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                  LPWSATHREADID thread, LPINT error);
int WSPAPI RecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
                    LPINT fromLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                    LPWSATHREADID thread, LPINT error);
int WSPAPI Select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                  LPINT error);

}  // namespace lower
