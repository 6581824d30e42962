#include "platform/preload/transfer.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>

#include "platform/preload/engine.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"
#include "platform/preload/sockets.h"
#include "platform/preload/waits.h"

namespace preload {
namespace {

constexpr std::size_t kMostPieces = 1024;  // the kernel's own limit of a list

bool Waits(const SocketRecord& record, int flags) {
    return (flags & MSG_DONTWAIT) == 0 && !record.nonBlocking.load(std::memory_order_relaxed);
}

/// What is left of a list of pieces.
class Rest {
  public:
    Rest(const Piece* pieces, std::size_t count) : next_(pieces), count_(count) { Load(); }

    /// The list, with its first piece as far as it is left.
    const Piece* Get() const { return begun_ ? &first_ : next_; }
    std::size_t count() const { return begun_ ? 1 : count_; }
    bool IsEmpty() const { return count_ == 0; }

    void Skip(std::size_t bytes) {
        while (count_ > 0 && bytes >= first_.size) {
            bytes -= first_.size;
            ++next_;
            --count_;
            begun_ = false;
            Load();
        }
        if (bytes == 0) return;
        begun_ = true;
        first_ = {static_cast<char*>(first_.data) + bytes, first_.size - bytes};
    }

  private:
    void Load() {
        if (count_ > 0) first_ = *next_;
    }

    const Piece* next_;
    std::size_t count_;
    Piece first_ = {};
    bool begun_ = false;
};

/// A connect that has failed meanwhile is told by the first call that needs the connection.
int ErrorOfConnect(const Bridge& bridge, SocketRecord& record, int error) {
    if (error != ENOTCONN || !record.connecting.load()) return error;
    int pending = 0;
    bridge.takeError(record.socket, &pending);
    if (pending != 0) record.connecting.store(false);
    return pending != 0 ? pending : error;
}

int SendOnce(SocketRecord& record, const Rest& rest, const SendRequest& request, std::size_t* bytes) {
    const Bridge* const bridge = TheBridge();
    if (bridge == nullptr) return ENETDOWN;
    const EngineCall call(record.lowerDescriptor);
    const unsigned flags = (request.flags & MSG_OOB) != 0 ? kOutOfBandFlag : 0;
    const Transfer transfer =
        bridge->send(record.socket, rest.Get(), std::min(rest.count(), kMostPieces), flags, request.to);
    *bytes = transfer.bytes;
    return ErrorOfConnect(*bridge, record, EngineCall::ErrorOf(transfer.error));
}

ssize_t FailedSend(const SocketRecord& record, int flags, int error) {
    if (error == EPIPE && record.stream && (flags & MSG_NOSIGNAL) == 0) pthread_kill(pthread_self(), SIGPIPE);
    return Result(error);
}

/// A stream without a connection: which error that is, the kernel says, and raises the signal.
ssize_t RefusedByKernel(int descriptor, const SendRequest& request) {
    return Real().send(descriptor, request.pieces->data, request.pieces->size, request.flags | MSG_DONTWAIT);
}

int ReceiveOnce(SocketRecord& record, const Rest& rest, ReceiveRequest* request, std::size_t* bytes) {
    const Bridge* const bridge = TheBridge();
    if (bridge == nullptr) return ENETDOWN;
    const EngineCall call(record.lowerDescriptor);
    const unsigned flags = ((request->flags & MSG_PEEK) != 0 ? kPeekFlag : 0) |
                           ((request->flags & MSG_OOB) != 0 ? kOutOfBandFlag : 0);
    const Transfer transfer = bridge->receive(record.socket, rest.Get(), std::min(rest.count(), kMostPieces),
                                              flags, record.stream ? nullptr : request->from);
    *bytes = transfer.bytes;
    request->truncated = transfer.truncated;
    const int error = EngineCall::ErrorOf(transfer.error);
    // A datagram that nobody took, which Winsock tells as a reset.
    if (!record.stream && error == ECONNRESET) return ECONNREFUSED;
    return ErrorOfConnect(*bridge, record, error);
}

}  // namespace

std::size_t SizeOf(const Piece* pieces, std::size_t count) {
    std::size_t size = 0;
    for (std::size_t i = 0; i < count; ++i)
        size += pieces[i].size;
    return size;
}

bool KnowsSendFlags(const SocketRecord& record, int flags) {
    const int hints = record.stream ? MSG_MORE | MSG_EOR | MSG_OOB : MSG_CONFIRM;
    return (flags & ~(MSG_DONTWAIT | MSG_NOSIGNAL | hints)) == 0;
}

bool KnowsReceiveFlags(const SocketRecord& record, int flags) {
    const int more = record.stream ? MSG_OOB : 0;
    return (flags & ~(MSG_DONTWAIT | MSG_NOSIGNAL | MSG_PEEK | MSG_WAITALL | MSG_CMSG_CLOEXEC | more)) == 0;
}

ssize_t Send(int descriptor, SocketRecord& record, const SendRequest& request) {
    const bool waits = Waits(record, request.flags);
    Rest rest(request.pieces, request.count);
    std::size_t sent = 0;
    for (;;) {
        std::size_t bytes = 0;
        int error = SendOnce(record, rest, request, &bytes);
        if (error == 0) {
            sent += bytes;
            rest.Skip(bytes);
            if (!record.stream || !waits || rest.IsEmpty() || SizeOf(rest.Get(), rest.count()) == 0)
                return static_cast<ssize_t>(sent);
            continue;
        }
        if (error == EAGAIN && waits) {
            error = WaitFor(descriptor, POLLOUT, record.sendTimeout.load());
            if (error == 0) continue;
        }
        if (sent > 0) return static_cast<ssize_t>(sent);
        if (error == ENOTCONN && record.stream && request.count > 0)
            return RefusedByKernel(descriptor, request);
        return FailedSend(record, request.flags, error);
    }
}

ssize_t Receive(int descriptor, SocketRecord& record, ReceiveRequest* request) {
    const bool waits = Waits(record, request->flags) && (request->flags & MSG_OOB) == 0;
    const bool wantsAll =
        waits && record.stream && (request->flags & MSG_WAITALL) != 0 && (request->flags & MSG_PEEK) == 0;
    Rest rest(request->pieces, request->count);
    std::size_t received = 0;
    for (;;) {
        std::size_t bytes = 0;
        int error = ReceiveOnce(record, rest, request, &bytes);
        if (error == 0) {
            received += bytes;
            rest.Skip(bytes);
            const bool isDone = bytes == 0 || rest.IsEmpty() || SizeOf(rest.Get(), rest.count()) == 0;
            if (!wantsAll || isDone) return static_cast<ssize_t>(received);
            continue;
        }
        if (error == EAGAIN && waits) {
            error = WaitFor(descriptor, POLLIN, record.receiveTimeout.load());
            if (error == 0) continue;
        }
        if (received > 0) return static_cast<ssize_t>(received);
        // Where Winsock has no connection, the kernel may know of an end.
        if (error == ENOTCONN && record.stream && request->count > 0)
            return Real().recv(descriptor, rest.Get()->data, rest.Get()->size, request->flags | MSG_DONTWAIT);
        return Result(error);
    }
}

}  // namespace preload
