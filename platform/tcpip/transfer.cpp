// System calls are counted here: a blocking transfer without a time-out is the kernel's own blocking call,
// one with a time-out waits by poll only when the data can be expected to be missing.
#include "platform/tcpip/transfer.h"

#include <algorithm>
#include <cerrno>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/routes.h"
#include "platform/tcpip/timed_wait.h"
#include "platform/tcpip/transfer_steps.h"

namespace tcpip {
namespace {

constexpr DWORD kPushImmediate =
    0x20;  // MSG_PUSH_IMMEDIATE: a receive need not wait for more; it never does here

platform::Deadline DeadlineOf(const std::atomic<DWORD>& timeout) {
    const DWORD milliseconds = timeout.load(std::memory_order_relaxed);
    return milliseconds == 0 ? platform::kNoDeadline : platform::DeadlineAfter(milliseconds);
}

/// Sends all of the buffers without the kernel's own blocking, until the deadline.
int SendUntil(Socket& socket, std::vector<kernel::IoBuffer> buffers, unsigned flags, const Endpoint* to,
              platform::Deadline deadline, DWORD* bytes) {
    std::size_t first = 0;
    *bytes = 0;
    for (;;) {
        const kernel::Transfer transfer =
            SendOnce(socket, buffers.data() + first, buffers.size() - first, flags | kernel::kDontWait, to);
        if (transfer.error == EAGAIN) {
            const int error = WaitReady(socket.fd(), kernel::kWritable, deadline);
            if (error != 0) return error;
            if (socket.IsClosed()) return WSAEINTR;
            continue;
        }
        if (transfer.error != 0) return SendError(socket, transfer.error);
        *bytes += static_cast<DWORD>(transfer.bytes);
        Advance(&buffers, &first, transfer.bytes);
        if (!socket.IsStream() || first == buffers.size()) return 0;
    }
}

std::vector<kernel::IoBuffer> BuffersOf(const BufferList& list) {
    return {list.data(), list.data() + list.count()};
}

}  // namespace

int BufferList::Assign(const WSABUF* buffers, DWORD count, DWORD limit) {
    if (buffers == nullptr && count > 0) return WSAEFAULT;
    kernel::IoBuffer* target = inline_;
    if (count > kInline) {
        long_.resize(count);
        target = long_.data();
    }
    count_ = count;
    bytes_ = 0;
    for (DWORD i = 0; i < count; ++i) {
        const std::size_t size = std::min<std::size_t>(buffers[i].len, limit - bytes_);
        target[i] = {buffers[i].buf, size};
        bytes_ += size;
    }
    return 0;
}

void BufferList::Skip(std::size_t bytes) {
    bytes_ -= bytes;
    kernel::IoBuffer* buffers = count_ <= kInline ? inline_ : long_.data();
    for (std::size_t i = 0; i < count_ && bytes > 0; ++i) {
        const std::size_t skipped = std::min(bytes, buffers[i].size);
        buffers[i] = {static_cast<char*>(buffers[i].data) + skipped, buffers[i].size - skipped};
        bytes -= skipped;
    }
}

int SendFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags) {
    if ((flags & ~static_cast<DWORD>(MSG_OOB | MSG_DONTROUTE)) != 0) return WSAEOPNOTSUPP;
    if ((flags & MSG_OOB) != 0 && !socket.IsStream()) return WSAEOPNOTSUPP;
    *kernelFlags = ((flags & MSG_OOB) != 0 ? kernel::kOutOfBand : 0) |
                   ((flags & MSG_DONTROUTE) != 0 ? kernel::kDontRoute : 0);
    return 0;
}

int ReceiveFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags) {
    const DWORD known = MSG_OOB | MSG_PEEK | MSG_WAITALL | MSG_PARTIAL | kPushImmediate;
    if ((flags & ~known) != 0) return WSAEOPNOTSUPP;
    if ((flags & (MSG_OOB | MSG_WAITALL)) != 0 && !socket.IsStream()) return WSAEOPNOTSUPP;
    if ((flags & MSG_WAITALL) != 0 && (flags & (MSG_OOB | MSG_PEEK)) != 0) return WSAEOPNOTSUPP;
    *kernelFlags = ((flags & MSG_OOB) != 0 ? kernel::kOutOfBand : 0) |
                   ((flags & MSG_PEEK) != 0 ? kernel::kPeek : 0) |
                   ((flags & MSG_WAITALL) != 0 ? kernel::kWaitAll : 0);
    return 0;
}

int CheckSendState(Socket& socket, bool hasDestination) {
    if (socket.sendShut.load(std::memory_order_relaxed) && !socket.kernelRules) return WSAESHUTDOWN;
    if (!socket.IsStream() && hasDestination) return 0;
    return socket.RefreshConnect() == State::Connected ? 0 : WSAENOTCONN;
}

int CheckReceiveState(Socket& socket) {
    if (socket.kernelRules.load(std::memory_order_relaxed) && !socket.IsStream()) return 0;
    if (socket.receiveShut.load(std::memory_order_relaxed) && !socket.kernelRules) return WSAESHUTDOWN;
    if (!socket.IsStream()) return socket.bound.load(std::memory_order_relaxed) ? 0 : WSAEINVAL;
    return socket.RefreshConnect() == State::Connected ? 0 : WSAENOTCONN;
}

int RouteDatagram(Socket& socket, const Endpoint& to, Endpoint* target) {
    if (to.port == 0) return WSAEADDRNOTAVAIL;
    Route route;
    const int error = FindRoute(to, socket.kind, &route);
    if (error != 0) return error;
    if (route.routed && !route.blackHole) socket.RememberRoute(route.target, to);
    *target = route.target;
    return 0;
}

int SendNow(Socket& socket, const BufferList& buffers, unsigned flags, const Endpoint* to, DWORD* bytes) {
    const bool waits = !socket.nonBlocking.load(std::memory_order_relaxed);
    int error;
    if (waits && socket.sendTimeout.load(std::memory_order_relaxed) != 0) {
        error = SendUntil(socket, BuffersOf(buffers), flags, to, DeadlineOf(socket.sendTimeout), bytes);
    } else {
        error = waits ? socket.SetKernelMode(false) : 0;
        if (error != 0) return error;
        const kernel::Transfer transfer =
            SendOnce(socket, buffers.data(), buffers.count(), flags | (waits ? 0 : kernel::kDontWait), to);
        error = SendError(socket, transfer.error);
        *bytes = static_cast<DWORD>(transfer.bytes);
        // Only a signal makes a blocking send end before its end; the rest goes out by waiting.
        if (error == 0 && waits && socket.IsStream() && transfer.bytes < buffers.bytes()) {
            DWORD more = 0;
            BufferList rest = buffers;
            rest.Skip(transfer.bytes);
            error = SendUntil(socket, BuffersOf(rest), flags, to, platform::kNoDeadline, &more);
            *bytes += more;
        }
    }
    if (error == WSAEWOULDBLOCK) socket.RearmEvents(FD_WRITE);
    if (error == 0 && to != nullptr) socket.bound.store(true, std::memory_order_relaxed);
    return error != 0 && waits && socket.IsClosed() ? WSAEINTR : error;
}

int SendWhole(Socket& socket, const kernel::IoBuffer& buffer) {
    DWORD bytes = 0;
    const int error = SendUntil(socket, {buffer}, 0, nullptr, DeadlineOf(socket.sendTimeout), &bytes);
    return error != 0 && socket.IsClosed() ? WSAEINTR : error;
}

int ReceiveNow(Socket& socket, const BufferList& buffers, unsigned flags, Endpoint* from, DWORD* bytes) {
    if (socket.resetPending.load(std::memory_order_relaxed) && socket.resetPending.exchange(false)) {
        return WSAECONNRESET;
    }
    const bool waits = !socket.nonBlocking.load(std::memory_order_relaxed);
    if (!waits && (flags & kernel::kWaitAll) != 0) return WSAEOPNOTSUPP;
    const bool timed = waits && socket.receiveTimeout.load(std::memory_order_relaxed) != 0;
    const bool urgent = (flags & kernel::kOutOfBand) != 0;
    const bool peeks = socket.IsStream() && buffers.bytes() == 0;  // asks only whether there is data
    const unsigned ready = urgent ? kernel::kPriority : kernel::kReadable;
    const platform::Deadline deadline = timed ? DeadlineOf(socket.receiveTimeout) : platform::kNoDeadline;
    const unsigned kernelFlags = flags | socket.KindFlags();
    int error = 0;
    kernel::Transfer transfer;
    if (waits && !timed && !urgent && !peeks) {
        error = socket.SetKernelMode(false);
        if (error != 0) return error;
        transfer = kernel::Receive(socket.fd(), buffers.data(), buffers.count(), kernelFlags, from);
        error = ReceiveError(socket, transfer, flags);
    } else {
        // A time-out is mostly waited for where an answer is: the data is rarely there at the first look.
        bool waitFirst = waits && !socket.likelyReadable.load(std::memory_order_relaxed);
        for (;;) {
            if (waitFirst) error = WaitReady(socket.fd(), ready, deadline);
            if (error != 0 || (waits && socket.IsClosed())) break;
            waitFirst = waits;
            if (peeks && NothingReadable(socket)) {
                error = WSAEWOULDBLOCK;
            } else {
                transfer = kernel::Receive(socket.fd(), buffers.data(), buffers.count(),
                                           kernelFlags | kernel::kDontWait, from);
                error = ReceiveError(socket, transfer, flags);
            }
            if (error != WSAEWOULDBLOCK || !waits) break;
            error = 0;
        }
    }
    socket.likelyReadable.store(error == 0 && transfer.bytes == buffers.bytes(), std::memory_order_relaxed);
    socket.RearmEvents(FD_READ | FD_OOB);
    if (waits && socket.IsClosed()) return WSAEINTR;
    *bytes = static_cast<DWORD>(transfer.bytes);
    if (error == 0 && from != nullptr) *from = socket.PublicAddress(*from);
    return error == 0 && transfer.truncated ? WSAEMSGSIZE : error;
}

}  // namespace tcpip
