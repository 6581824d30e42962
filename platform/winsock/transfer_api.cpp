// Data: sends, receives, and the results of overlapped ones.
#include <vector>

#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"

namespace winsock_host {
namespace {

// The caller's buffers, or a shortened copy of the list when an armed fault lets only so many bytes through.
// Providers need the list no longer than the call.
class LimitedBuffers {
  public:
    LimitedBuffers(const HostCall& call, LPWSABUF buffers, DWORD count, bool isWhole = false)
        : buffers_(buffers), count_(count) {
        DWORD left = isWhole ? 0xFFFFFFFF : call.LimitCount(0xFFFFFFFF);
        if (left == 0xFFFFFFFF || buffers == nullptr) return;
        for (DWORD i = 0; i < count && left > 0; ++i) {
            shortened_.push_back({buffers[i].len < left ? buffers[i].len : left, buffers[i].buf});
            left -= shortened_.back().len;
        }
        buffers_ = shortened_.data();
        count_ = static_cast<DWORD>(shortened_.size());
    }
    LPWSABUF list() const { return buffers_; }
    DWORD count() const { return count_; }

  private:
    LPWSABUF buffers_;
    DWORD count_;
    std::vector<WSABUF> shortened_;
};

WSABUF BufferOf(const char* data, int length) {
    return {static_cast<ULONG>(length), const_cast<char*>(data)};
}

// The byte count of a call that succeeded, for the functions that return it.
int CountOrFailure(int result, DWORD bytes) {
    return result == 0 ? static_cast<int>(bytes) : SOCKET_ERROR;
}

// A message that came in part only is an error for recv and recvfrom, which cannot report it as a flag.
int ReceivedCount(int result, DWORD bytes, DWORD flags) {
    if (result == 0 && (flags & MSG_PARTIAL) != 0) return FailWith(WSAEMSGSIZE, SOCKET_ERROR);
    return CountOrFailure(result, bytes);
}

}  // namespace

int WSAAPI HostWSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    HostCall call("WSASend", WSAECONNRESET);
    // An overlapped send ends with all of its bytes or with an error.
    const LimitedBuffers limited(call, buffers, count, overlapped != nullptr);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSend(s, limited.list(), limited.count(), sent, flags, overlapped, routine,
                               ThreadIdFor(overlapped, routine), error);
    });
}

int WSAAPI HostWSASendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                         const struct sockaddr* to, int toLength, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    HostCall call("WSASendTo", WSAECONNRESET);
    const LimitedBuffers limited(call, buffers, count);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSendTo(s, limited.list(), limited.count(), sent, flags, to, toLength, overlapped,
                                 routine, ThreadIdFor(overlapped, routine), error);
    });
}

int WSAAPI HostWSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    HostCall call("WSARecv", WSAECONNRESET);
    const LimitedBuffers limited(call, buffers, count);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPRecv(s, limited.list(), limited.count(), received, flags, overlapped, routine,
                               ThreadIdFor(overlapped, routine), error);
    });
}

int WSAAPI HostWSARecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                           struct sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    HostCall call("WSARecvFrom", WSAECONNRESET);
    const LimitedBuffers limited(call, buffers, count);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPRecvFrom(s, limited.list(), limited.count(), received, flags, from, fromLength,
                                   overlapped, routine, ThreadIdFor(overlapped, routine), error);
    });
}

int WSAAPI HostSend(SOCKET s, const char* data, int length, int flags) {
    HostCall call("send", WSAECONNRESET);
    WSABUF buffer = BufferOf(data, static_cast<int>(call.LimitCount(static_cast<DWORD>(length))));
    DWORD sent = 0;
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSend(s, &buffer, 1, &sent, static_cast<DWORD>(flags), nullptr, nullptr, nullptr,
                               error);
    });
    return CountOrFailure(result, sent);
}

int WSAAPI HostSendTo(SOCKET s, const char* data, int length, int flags, const struct sockaddr* to,
                      int toLength) {
    HostCall call("sendto", WSAECONNRESET);
    WSABUF buffer = BufferOf(data, length);
    DWORD sent = 0;
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSendTo(s, &buffer, 1, &sent, static_cast<DWORD>(flags), to, toLength, nullptr,
                                 nullptr, nullptr, error);
    });
    return CountOrFailure(result, sent);
}

int WSAAPI HostRecv(SOCKET s, char* data, int length, int flags) {
    HostCall call("recv", WSAECONNRESET);
    WSABUF buffer = BufferOf(data, static_cast<int>(call.LimitCount(static_cast<DWORD>(length))));
    DWORD received = 0;
    DWORD flagsInOut = static_cast<DWORD>(flags);
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPRecv(s, &buffer, 1, &received, &flagsInOut, nullptr, nullptr, nullptr, error);
    });
    return ReceivedCount(result, received, flagsInOut);
}

int WSAAPI HostRecvFrom(SOCKET s, char* data, int length, int flags, struct sockaddr* from, int* fromLength) {
    HostCall call("recvfrom", WSAECONNRESET);
    WSABUF buffer = BufferOf(data, length);
    DWORD received = 0;
    DWORD flagsInOut = static_cast<DWORD>(flags);
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPRecvFrom(s, &buffer, 1, &received, &flagsInOut, from, fromLength, nullptr, nullptr,
                                   nullptr, error);
    });
    return ReceivedCount(result, received, flagsInOut);
}

BOOL WSAAPI HostWSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                       LPDWORD flags) {
    HostCall call("WSAGetOverlappedResult", WSAENETDOWN);
    return CallOnSocket(call, s, BOOL{FALSE}, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetOverlappedResult(s, overlapped, bytes, wait, flags, error);
    });
}

}  // namespace winsock_host
