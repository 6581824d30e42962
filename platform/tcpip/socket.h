// A socket of the base provider: a kernel object whose handle is the SOCKET, around one kernel descriptor.
//
// Life: the descriptor is closed by the last handle's close, or, when calls are inside the kernel with it
// then, by the last of these calls (the close wakes them). The object lives while a handle, a call or a
// request refers to it. Locks: `lock` guards the fields below it; a listener's lock may be held when an
// accepting socket's is taken, no other two. Requests are completed with it held: completions only queue,
// wake and signal. Atomics are read without it.
//
// A socket shares no cache line with another object: every call writes its first and its last fields, and
// threads use sockets that were made one after the other.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/kernel/clock.h"
#include "platform/kernel/file_object.h"
#include "platform/tcpip/endpoint.h"
#include "platform/tcpip/kernel_socket.h"
#include "platform/tcpip/request.h"

namespace tcpip {

enum class State : unsigned char {
    Idle,        // streams: not connected; datagrams: no fixed peer
    Connecting,  // a connect is under way in the kernel
    Connected,
    Failed,  // the last connect failed; it may be tried again
    Listening,
};

/// What a socket must be told by SO_UPDATE_..._CONTEXT before its names and shutdown work.
enum class MissingContext : unsigned char { None, Accept, Connect };

enum Direction { kRead, kWrite, kDirections };

/// The options that the provider keeps itself; an accepted socket gets a copy of the listener's.
struct SocketOptions {
    int sendBuffer = -1;  // as set; -1: the kernel's choice
    int receiveBuffer = -1;
    bool reuseAddress = false;
    bool exclusiveAddress = false;
    bool conditionalAccept = false;
    bool lingerOn = false;
    USHORT lingerSeconds = 0;
};

/// Who is told of network events: an event object, or a window by a message that names the socket.
struct EventTarget {
    HANDLE event = nullptr;
    HWND window = nullptr;
    UINT message = 0;
    SOCKET socket = INVALID_SOCKET;
};

struct AppliedOption {
    kernel::Option option;
    int value;
};

class alignas(64) Socket final : public platform::FileObject {
  public:
    Socket(const WSAPROTOCOL_INFOW& protocolInfo, bool isV6, kernel::Kind socketKind, bool isOverlapped,
           int descriptor);
    ~Socket() override;

    // ---- Never changes

    const WSAPROTOCOL_INFOW info;
    const bool v6;
    const kernel::Kind kind;
    const bool overlapped;

    bool IsStream() const { return kind == kernel::Kind::Stream; }
    unsigned KindFlags() const { return IsStream() ? 0 : kernel::kDatagram; }

    // ---- Read and written without the lock

    std::atomic<State> state{State::Idle};
    std::atomic<MissingContext> missingContext{MissingContext::None};
    std::atomic<bool> nonBlocking{false};  // what the application asked for
    std::atomic<bool> bound{false};
    std::atomic<bool> kernelRules{false};  // see kernel_descriptor.h
    std::atomic<bool> sendShut{false};
    std::atomic<bool> receiveShut{false};
    std::atomic<bool> likelyReadable{false};   // the last receive filled its buffer, or select found bytes
    std::atomic<bool> resetPending{false};     // datagrams: the next receive reports an unreachable peer
    std::atomic<bool> connectionReset{false};  // streams: by the peer
    std::atomic<bool> hasRoutes{false};        // `routes` is not empty
    std::atomic<DWORD> sendTimeout{0};         // milliseconds, 0: none
    std::atomic<DWORD> receiveTimeout{0};
    std::atomic<LONG> eventMask{0};  // of WSPEventSelect or WSPAsyncSelect

    /// Remembers a reset of a stream's connection. The kernel tells it once, to whichever call comes first;
    /// on Windows every later receive fails.
    void NoteReset(int error);

    /// Makes the kernel's blocking mode the given one, unless it is already.
    int SetKernelMode(bool nonBlockingMode);
    bool KernelNonBlocking() const { return kernelNonBlocking_.load(std::memory_order_relaxed); }
    void AssumeKernelMode(bool nonBlockingMode) { kernelNonBlocking_.store(nonBlockingMode); }

    // ---- The descriptor

    /// Keeps the descriptor open until ReleaseFd; false when the socket was closed.
    bool AcquireFd();
    void ReleaseFd();
    bool IsClosed() const { return (uses_.load(std::memory_order_acquire) & kClosed) != 0; }
    int fd() const { return fd_; }

    /// Cancels what is pending, closes the descriptor or wakes those who use it.
    void OnLastHandleClosed() noexcept override;

    bool CancelRequest(const OVERLAPPED* overlapped) noexcept override;

    // ---- Under the lock

    mutable std::mutex lock;

    SocketOptions options;
    std::vector<AppliedOption> applied;  // what a new kernel socket in the place of this one must be given
    Endpoint peer;                       // as asked for, not where a route led
    int connectError = 0;                // of the last connect that failed
    bool connectStarted = false;         // the kernel works on the connect; before, its answers mean nothing
    int pendingError = 0;                // for SO_ERROR
    platform::Deadline connectDeadline = platform::kNoDeadline;  // of a connect into a black hole
    std::int64_t connectedAt = 0;                                // clock nanoseconds
    Endpoint boundTo;                                            // as given to WSPBind

    /// Where datagrams really went, so that answers show the public address.
    struct UsedRoute {
        Endpoint target;
        Endpoint destination;
    };
    std::vector<UsedRoute> routes;

    /// A connection that the application's condition function put off.
    int deferredFd = -1;
    Endpoint deferredPeer;

    /// Accepting sockets: the listener where the request waits.
    std::weak_ptr<Socket> acceptListener;

    // WSPEventSelect and WSPAsyncSelect: the one replaces the other.
    EventTarget eventTarget;
    LONG eventArmed = 0;  // may still be recorded
    WSANETWORKEVENTS eventRecord = {};

    RequestQueue queues[kDirections];
    bool shutWhenSent = false;  // the sending direction ends behind what is queued
    bool registered = false;    // the reactor watches the descriptor
    std::uint64_t reactorTag = 0;

    // ---- Operations on the state

    /// Looks whether a connect under way has ended. The lock is held.
    State RefreshConnectLocked();

    /// The same for a caller without the lock; costs nothing when no connect is under way.
    State RefreshConnect();

    /// The connect has ended with this Winsock error, 0 for success. The lock is held.
    void FinishConnectLocked(int error);

    /// What the reactor was told about the descriptor: goes on with requests, records events.
    void OnReady();

    /// Has the reactor watch the descriptor from now on. 0 or a Winsock error. The lock is held.
    int RegisterLocked();

    /// Attempts the requests of a direction in order. The lock is held.
    void DriveLocked(Direction direction);

    /// Lets `events` be told again, and tells those that hold already. Nothing while none are asked for.
    void RearmEvents(LONG events);
    void RecordEventsLocked();

    /// Ends the sending direction, behind the sends that are queued. 0 or the kernel's error. The lock is
    /// held.
    int ShutSendLocked();

    /// Ends a connection as the flags say: TF_DISCONNECT, and with it TF_REUSE_SOCKET, after which the socket
    /// can connect again. 0 or a Winsock error. The lock is held.
    int DisconnectLocked(DWORD flags);

    /// Replaces the kernel's socket by `newFd`, which is closed; gives it the options set so far. The lock is
    /// held.
    int ReplaceFdLocked(int newFd);

    /// Ends the accept request that waits for `accepting`, if it is still there.
    void CancelAccept(const Socket* accepting);

    /// The public address behind the target of a route, or `from` itself.
    Endpoint PublicAddress(const Endpoint& from) const;
    Endpoint PublicAddressLocked(const Endpoint& from) const;
    void RememberRoute(const Endpoint& target, const Endpoint& destination);

  private:
    static constexpr std::uint32_t kClosed = 0x80000000;

    int RecycleLocked();
    void CancelAllLocked();
    void RecordEventLocked(LONG event, int bit, int error);

    const int fd_;
    std::atomic<std::uint32_t> uses_{0};  // calls with the descriptor, and kClosed
    std::atomic<bool> kernelNonBlocking_{false};
};

/// The socket of a handle, with its descriptor held for the duration of one operation.
class SocketUse {
  public:
    explicit SocketUse(SOCKET s);
    ~SocketUse() {
        if (socket_ != nullptr) socket_->ReleaseFd();
    }
    SocketUse(const SocketUse&) = delete;
    SocketUse& operator=(const SocketUse&) = delete;

    explicit operator bool() const { return socket_ != nullptr; }
    Socket* operator->() const { return socket_.get(); }
    Socket& operator*() const { return *socket_; }
    int fd() const { return socket_->fd(); }
    const std::shared_ptr<Socket>& pointer() const { return socket_; }

  private:
    std::shared_ptr<Socket> socket_;
};

}  // namespace tcpip
