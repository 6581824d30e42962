// The life of a socket, the end of its connects, and its routes. Requests: overlapped.cpp; events:
// events.cpp.
#include "platform/tcpip/socket.h"

#include <mswsock.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/reactor.h"

namespace tcpip {

Socket::Socket(const WSAPROTOCOL_INFOW& protocolInfo, bool isV6, kernel::Kind socketKind, bool isOverlapped,
               int descriptor)
    : FileObject(platform::ObjectKind::kLowerSocket),
      info(protocolInfo),
      v6(isV6),
      kind(socketKind),
      overlapped(isOverlapped),
      fd_(descriptor) {}

Socket::~Socket() {
    // Only a socket that never got its handle still has its descriptor.
    if (!IsClosed()) kernel::Close(fd_);
}

int Socket::SetKernelMode(bool nonBlockingMode) {
    if (KernelNonBlocking() == nonBlockingMode) return 0;
    const int error = kernel::SetNonBlocking(fd_, nonBlockingMode);
    if (error == 0) AssumeKernelMode(nonBlockingMode);
    return WinsockErrorFromErrno(error);
}

bool Socket::AcquireFd() {
    std::uint32_t uses = uses_.load(std::memory_order_relaxed);
    while ((uses & kClosed) == 0) {
        if (uses_.compare_exchange_weak(uses, uses + 1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void Socket::ReleaseFd() {
    if (uses_.fetch_sub(1, std::memory_order_acq_rel) == (kClosed | 1)) kernel::Close(fd_);
}

void Socket::OnLastHandleClosed() noexcept {
    std::shared_ptr<Socket> listener;
    std::uint32_t others;
    int deferred;
    {
        std::lock_guard<std::mutex> guard(lock);
        // The close is itself a user, so that nobody else closes the descriptor while it is shut down below.
        if (!AcquireFd()) return;
        others = (uses_.fetch_or(kClosed, std::memory_order_acq_rel) & ~kClosed) - 1;
        CancelAllLocked();
        eventMask.store(0);
        listener = acceptListener.lock();
        acceptListener.reset();
        deferred = std::exchange(deferredFd, -1);
        if (registered) ReactorForget(reactorTag);
    }
    if (listener != nullptr) listener->CancelAccept(this);
    if (deferred >= 0) kernel::Close(deferred);
    if (others > 0) kernel::Shutdown(fd_, kernel::Direction::Both);
    ReleaseFd();
}

bool Socket::CancelRequest(const OVERLAPPED* cancelled) noexcept {
    std::lock_guard<std::mutex> guard(lock);
    for (RequestQueue& queue : queues) {
        Request* const request =
            queue.Take([cancelled](const Request& queued) { return queued.overlapped == cancelled; });
        if (request == nullptr) continue;
        CompleteRequest(request, WSA_OPERATION_ABORTED);
        if (shutWhenSent) ShutSendLocked();
        return true;
    }
    return false;
}

void Socket::CancelAllLocked() {
    for (RequestQueue& queue : queues) {
        while (!queue.empty())
            CompleteRequest(queue.Pop(), WSA_OPERATION_ABORTED);
    }
}

void Socket::CancelAccept(const Socket* accepting) {
    std::lock_guard<std::mutex> guard(lock);
    Request* request = queues[kRead].Take(
        [accepting](const Request& waiting) { return waiting.accepting.get() == accepting; });
    if (request != nullptr) CompleteRequest(request, WSA_OPERATION_ABORTED);
}

void Socket::NoteReset(int error) {
    if ((error == ECONNRESET || error == EPIPE) && IsStream() && !kernelRules) connectionReset.store(true);
}

State Socket::RefreshConnect() {
    const State now = state.load(std::memory_order_acquire);
    if (now != State::Connecting) return now;
    std::lock_guard<std::mutex> guard(lock);
    return RefreshConnectLocked();
}

State Socket::RefreshConnectLocked() {
    if (state.load() != State::Connecting || !connectStarted || IsClosed()) return state.load();
    kernel::PollEntry entry = {fd_, static_cast<short>(kernel::kWritable), 0};
    int error = 0;
    kernel::Poll(&entry, 1, 0, &error);
    const unsigned got = static_cast<unsigned short>(entry.got);
    if ((got & (kernel::kError | kernel::kHangUp)) != 0) {
        const int kernelError = kernel::TakeError(fd_);
        error = WinsockErrorFromErrno(kernelError);
        // Set up and reset since: the connect was good, the next receive tells of the reset.
        FinishConnectLocked(error == WSAECONNRESET ? 0 : error == 0 ? WSAECONNABORTED : error);
        NoteReset(kernelError);
    } else if ((got & kernel::kWritable) != 0) {
        FinishConnectLocked(0);
    } else if (platform::HasPassed(connectDeadline)) {
        kernel::Unconnect(fd_);
        FinishConnectLocked(WSAETIMEDOUT);
    }
    return state.load();
}

void Socket::FinishConnectLocked(int error) {
    connectDeadline = platform::kNoDeadline;
    connectError = error;
    if (error == 0) {
        connectedAt = platform::ClockNow();
        sendShut.store(false);
        receiveShut.store(false);
        connectionReset.store(false);
        state.store(State::Connected, std::memory_order_release);
    } else {
        pendingError = error;
        state.store(State::Failed, std::memory_order_release);
    }
    if (eventMask.load() == 0) return;
    if (error == 0) eventArmed |= FD_WRITE;
    RecordEventLocked(FD_CONNECT, FD_CONNECT_BIT, error);
}

void Socket::OnReady() {
    if (!AcquireFd()) return;
    {
        std::lock_guard<std::mutex> guard(lock);
        RefreshConnectLocked();
        for (int direction = 0; direction < kDirections; ++direction)
            DriveLocked(static_cast<Direction>(direction));
        RecordEventsLocked();
    }
    ReleaseFd();
}

int Socket::ShutSendLocked() {
    // First, so that a sender that the kernel's shutdown wakes finds the reason.
    const bool wasShut = sendShut.exchange(true);
    shutWhenSent = !queues[kWrite].empty();
    const int error = shutWhenSent ? 0 : kernel::Shutdown(fd_, kernel::Direction::Send);
    if (error != 0) sendShut.store(wasShut);
    return error;
}

/// The connection has ended in good order while the socket goes on with a new kernel socket, bound to the
/// same address but to a port of its own, since the old one may be busy fading away.
int Socket::RecycleLocked() {
    Endpoint local = AnyEndpoint(v6);
    kernel::LocalName(fd_, &local);
    local.port = 0;
    int kernelError = 0;
    const int newFd = kernel::Create(v6, kind, &kernelError);
    // Not after the bind.
    int v6Only = 0;
    if (kernelError == 0 && v6 && kernel::GetOption(fd_, kernel::Option::V6Only, &v6Only) == 0)
        kernelError = kernel::SetOption(newFd, kernel::Option::V6Only, v6Only);
    if (kernelError == 0) kernelError = kernel::Bind(newFd, local);
    if (kernelError != 0) {
        if (newFd >= 0) kernel::Close(newFd);
        return WinsockErrorFromErrno(kernelError);
    }
    const int error = ReplaceFdLocked(newFd);
    if (error != 0) return error;
    AssumeKernelMode(false);
    state.store(State::Idle);
    missingContext.store(MissingContext::None);
    shutWhenSent = false;
    sendShut.store(false);
    receiveShut.store(false);
    likelyReadable.store(false);
    connectionReset.store(false);
    return 0;
}

int Socket::DisconnectLocked(DWORD flags) {
    if ((flags & TF_DISCONNECT) == 0) return 0;
    if ((flags & TF_REUSE_SOCKET) == 0) {
        ShutSendLocked();
        return 0;
    }
    kernel::Shutdown(fd_, kernel::Direction::Send);
    return RecycleLocked();
}

int Socket::RegisterLocked() {
    if (registered) return 0;
    // Its close has nothing to take back: the reactor would keep it for ever.
    if (IsClosed()) return WSAENOTSOCK;
    const auto self = std::static_pointer_cast<Socket>(shared_from_this());
    const int error = ReactorWatch(self, fd_, &reactorTag);
    registered = error == 0;
    return WinsockErrorFromErrno(error);
}

int Socket::ReplaceFdLocked(int newFd) {
    int error = kernel::Replace(newFd, fd_);
    for (const AppliedOption& option : applied) {
        if (error == 0) error = kernel::SetOption(fd_, option.option, option.value);
    }
    if (error == 0 && options.lingerOn) error = kernel::SetLinger(fd_, true, options.lingerSeconds);
    // The reactor's interest ended with the descriptor's old meaning.
    if (error == 0 && registered) error = ReactorWatchAgain(fd_, reactorTag);
    return WinsockErrorFromErrno(error);
}

Endpoint Socket::PublicAddress(const Endpoint& from) const {
    if (!hasRoutes.load(std::memory_order_acquire)) return from;
    std::lock_guard<std::mutex> guard(lock);
    return PublicAddressLocked(from);
}

Endpoint Socket::PublicAddressLocked(const Endpoint& from) const {
    for (const UsedRoute& route : routes) {
        if (route.target == from) return route.destination;
    }
    return from;
}

void Socket::RememberRoute(const Endpoint& target, const Endpoint& destination) {
    constexpr std::size_t kMaximumRoutes = 256;
    std::lock_guard<std::mutex> guard(lock);
    for (UsedRoute& route : routes) {
        if (!(route.target == target)) continue;
        route.destination = destination;
        return;
    }
    if (routes.size() == kMaximumRoutes) routes.erase(routes.begin());
    routes.push_back({target, destination});
    hasRoutes.store(true, std::memory_order_release);
}

SocketUse::SocketUse(SOCKET s) {
    socket_ =
        platform::ReferenceHandleAs<Socket>(reinterpret_cast<HANDLE>(s), platform::ObjectKind::kLowerSocket);
    if (socket_ != nullptr && !socket_->AcquireFd()) socket_.reset();
}

}  // namespace tcpip
