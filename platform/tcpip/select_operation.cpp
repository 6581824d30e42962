// WSPSelect over kernel descriptors. What Windows reports differs from what the kernel does in three places:
// a stream that is neither connected nor listening is never ready, a failed connect shows in the except set
// alone, and so does urgent data.
#include <algorithm>
#include <memory>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/timed_wait.h"

namespace tcpip {
namespace {

constexpr std::size_t kFewSockets = 8;  // need no memory of their own
// Applications may compile their sets for more than FD_SETSIZE sockets; what claims more than this is none.
constexpr std::size_t kMostSockets = 0x10000;
enum SetBit : unsigned { kInRead = 1, kInWrite = 2, kInExcept = 4 };

struct Watched {
    std::shared_ptr<Socket> socket;
    SOCKET handle = INVALID_SOCKET;
    unsigned wanted = 0;  // SetBits
    unsigned ready = 0;
};

class Selection {
  public:
    /// Room for so many sockets; may throw for want of memory.
    explicit Selection(std::size_t capacity) {
        if (capacity <= kFewSockets) return;
        more_.reset(new Watched[capacity]);
        moreEntries_.reset(new kernel::PollEntry[capacity + kPollSpare]);
        watched_ = more_.get();
        entries_ = moreEntries_.get();
    }
    Selection(const Selection&) = delete;
    Selection& operator=(const Selection&) = delete;
    ~Selection() {
        for (std::size_t i = 0; i < count_; ++i)
            watched_[i].socket->ReleaseFd();
    }

    /// Adds the handles of a set. 0 or WSAENOTSOCK.
    int Add(const fd_set* set, unsigned bit);

    /// Waits; `*error` is set on failure.
    int Wait(platform::Deadline deadline);

    bool IsEmpty() const { return count_ == 0; }

    /// Leaves in the set what is ready; the number of handles left.
    int Store(fd_set* set, unsigned bit) const;

  private:
    Watched* Find(SOCKET handle);
    bool LookWithoutKernel(platform::Deadline* nextLook);
    void PrepareEntry(std::size_t i);
    bool TakeEntries();

    Watched few_[kFewSockets];
    kernel::PollEntry fewEntries_[kFewSockets + kPollSpare];
    std::unique_ptr<Watched[]> more_;
    std::unique_ptr<kernel::PollEntry[]> moreEntries_;
    Watched* watched_ = few_;
    kernel::PollEntry* entries_ = fewEntries_;
    std::size_t count_ = 0;
};

Watched* Selection::Find(SOCKET handle) {
    for (std::size_t i = 0; i < count_; ++i) {
        if (watched_[i].handle == handle) return &watched_[i];
    }
    return nullptr;
}

int Selection::Add(const fd_set* set, unsigned bit) {
    if (set == nullptr) return 0;
    for (unsigned i = 0; i < set->fd_count; ++i) {
        Watched* watched = Find(set->fd_array[i]);
        if (watched == nullptr) {
            auto socket = platform::ReferenceHandleAs<Socket>(reinterpret_cast<HANDLE>(set->fd_array[i]),
                                                              platform::ObjectKind::kLowerSocket);
            if (socket == nullptr || !socket->AcquireFd()) return WSAENOTSOCK;
            watched = &watched_[count_++];
            watched->socket = std::move(socket);
            watched->handle = set->fd_array[i];
        }
        watched->wanted |= bit;
    }
    return 0;
}

/// Notes what the kernel cannot tell: failed connects and connections put off. `*nextLook` is when a connect
/// into the black hole ends.
bool Selection::LookWithoutKernel(platform::Deadline* nextLook) {
    bool any = false;
    for (std::size_t i = 0; i < count_; ++i) {
        Socket& socket = *watched_[i].socket;
        if (!socket.IsStream()) continue;
        const State state = socket.state.load(std::memory_order_acquire);
        if (state == State::Connected) continue;
        std::lock_guard<std::mutex> guard(socket.lock);
        if (state == State::Connecting && platform::HasPassed(socket.connectDeadline))
            socket.RefreshConnectLocked();
        if (socket.state.load() == State::Failed) watched_[i].ready |= kInExcept;
        if (socket.deferredFd >= 0) watched_[i].ready |= kInRead;
        *nextLook = std::min(*nextLook, socket.connectDeadline);
        any = any || (watched_[i].ready & watched_[i].wanted) != 0;
    }
    return any;
}

/// What the kernel is asked about a socket in its present state.
void Selection::PrepareEntry(std::size_t i) {
    const Watched& watched = watched_[i];
    const State state = watched.socket->state.load(std::memory_order_acquire);
    unsigned want = 0;
    if ((watched.wanted & kInRead) != 0) want |= kernel::kReadable;
    if ((watched.wanted & kInWrite) != 0) want |= kernel::kWritable;
    if ((watched.wanted & kInExcept) != 0) want |= kernel::kPriority;
    const bool unready = watched.socket->IsStream() && (state == State::Idle || state == State::Failed);
    if (watched.socket->IsStream() && state == State::Connecting) want = kernel::kWritable;
    entries_[i] = {unready ? -1 : watched.socket->fd(), static_cast<short>(want), 0};
}

/// Reads the kernel's answer. False when nothing of it was asked for; such descriptors are left out from now
/// on.
bool Selection::TakeEntries() {
    bool any = false;
    for (std::size_t i = 0; i < count_; ++i) {
        const unsigned got = static_cast<unsigned short>(entries_[i].got);
        if (got == 0) continue;
        Watched& watched = watched_[i];
        Socket& socket = *watched.socket;
        const bool connecting = socket.state.load(std::memory_order_acquire) == State::Connecting;
        if (connecting) {
            const bool plain = (got & (kernel::kError | kernel::kHangUp)) == 0;
            std::lock_guard<std::mutex> guard(socket.lock);
            // The kernel has just told all there is to know about a connect that went well.
            if (plain && socket.connectStarted && socket.state.load() == State::Connecting) {
                socket.FinishConnectLocked(0);
            }
            const State now = socket.RefreshConnectLocked();
            if (now == State::Connected) watched.ready |= kInWrite;
            if (now == State::Failed) watched.ready |= kInExcept;
        } else {
            const unsigned failed = kernel::kError | kernel::kHangUp;
            if ((got & (kernel::kReadable | failed)) != 0) {
                watched.ready |= kInRead;
                watched.socket->likelyReadable.store(true, std::memory_order_relaxed);
            }
            if ((got & (kernel::kWritable | failed)) != 0) watched.ready |= kInWrite;
            if ((got & kernel::kPriority) != 0) watched.ready |= kInExcept;
        }
        if ((watched.ready & watched.wanted) != 0) {
            any = true;
        } else if (connecting) {
            PrepareEntry(i);  // the end of the connect was not asked for: what comes after it may be
        } else {
            entries_[i].fd = -1;
        }
    }
    return any;
}

int Selection::Wait(platform::Deadline deadline) {
    platform::Deadline nextLook = platform::kNoDeadline;
    const bool readyAlready = LookWithoutKernel(&nextLook);
    for (std::size_t i = 0; i < count_; ++i)
        PrepareEntry(i);
    for (;;) {
        int error = 0;
        const int ready =
            PollUntil(entries_, count_, readyAlready ? 0 : std::min(deadline, nextLook), &error);
        if (ready < 0) return WinsockErrorFromErrno(error);
        for (std::size_t i = 0; i < count_; ++i) {
            if (watched_[i].socket->IsClosed()) return WSAENOTSOCK;
        }
        if (TakeEntries() || readyAlready) return 0;
        if (platform::HasPassed(nextLook)) {
            nextLook = platform::kNoDeadline;
            if (LookWithoutKernel(&nextLook)) return 0;
        }
        if (platform::HasPassed(deadline)) return 0;
    }
}

int Selection::Store(fd_set* set, unsigned bit) const {
    if (set == nullptr) return 0;
    unsigned left = 0;
    for (unsigned i = 0; i < set->fd_count; ++i) {
        const SOCKET handle = set->fd_array[i];
        const Watched* watched = const_cast<Selection*>(this)->Find(handle);
        if ((watched->ready & bit) != 0) set->fd_array[left++] = handle;
    }
    set->fd_count = left;
    return static_cast<int>(left);
}

std::size_t CountHandles(const fd_set* set) {
    return set == nullptr ? 0 : set->fd_count;
}

platform::Deadline DeadlineOf(const timeval* timeout) {
    if (timeout == nullptr) return platform::kNoDeadline;
    if (timeout->tv_sec == 0 && timeout->tv_usec == 0) return 0;
    return platform::ClockNow() + static_cast<std::int64_t>(timeout->tv_sec) * 1000000000 +
           static_cast<std::int64_t>(timeout->tv_usec) * 1000;
}

}  // namespace

int WSPAPI TcpipSelect(int, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                       LPINT lpErrno) {
    return RunOperation(
        "lower WSPSelect", WSAENETDOWN, SOCKET_ERROR, lpErrno, [&](platform::PlatformCall&, int* result) {
            if (timeout != nullptr && (timeout->tv_sec < 0 || timeout->tv_usec < 0)) return WSAEINVAL;
            const std::size_t handles =
                CountHandles(readSet) + CountHandles(writeSet) + CountHandles(exceptSet);
            if (handles > kMostSockets) return WSAENOBUFS;
            Selection selection(handles);
            int error = selection.Add(readSet, kInRead);
            if (error == 0) error = selection.Add(writeSet, kInWrite);
            if (error == 0) error = selection.Add(exceptSet, kInExcept);
            if (error == 0 && selection.IsEmpty()) error = WSAEINVAL;
            if (error == 0) error = selection.Wait(DeadlineOf(timeout));
            if (error != 0) return error;
            *result = selection.Store(readSet, kInRead) + selection.Store(writeSet, kInWrite) +
                      selection.Store(exceptSet, kInExcept);
            return 0;
        });
}

}  // namespace tcpip
