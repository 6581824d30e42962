// See message_transport.h.
#include "messages/message_transport.h"

#include <algorithm>
#include <cstddef>
#include <memory>

#include "base/trace.h"

// The chain's pieces go to Winsock as they are.
static_assert(sizeof(BufferPiece) == sizeof(WSABUF) &&
                  offsetof(BufferPiece, length) == offsetof(WSABUF, len) &&
                  offsetof(BufferPiece, data) == offsetof(WSABUF, buf),
              "a BufferPiece is a WSABUF");

namespace {

/// What is left of a wait that may span several frames.
class Wait {
  public:
    explicit Wait(const AnswerLimits& limits)
        : maxTimeouts_(limits.maxTimeouts),
          totalMilliseconds_(limits.totalMilliseconds),
          stop_(limits.stop),
          startedAt_(GetTickCount()) {}

    void CountTimeout() { ++timeouts_; }
    std::uint32_t Timeouts() const { return timeouts_; }

    bool IsOver() const {
        if (maxTimeouts_ != 0 && timeouts_ > maxTimeouts_) return true;
        if (totalMilliseconds_ != 0 && Elapsed() >= totalMilliseconds_) return true;
        return stop_ != nullptr && *stop_;
    }

    /// One slice, cut where the whole wait ends.
    timeval NextSlice() const {
        constexpr std::uint32_t sliceMilliseconds = kReceiveSliceSeconds * 1000;
        std::uint32_t milliseconds = sliceMilliseconds;
        if (totalMilliseconds_ != 0) {
            const std::uint32_t elapsed = Elapsed();
            const std::uint32_t left = totalMilliseconds_ > elapsed ? totalMilliseconds_ - elapsed : 0;
            milliseconds = left < sliceMilliseconds ? left : sliceMilliseconds;
        }
        timeval slice;
        slice.tv_sec = static_cast<long>(milliseconds / 1000);
        slice.tv_usec = static_cast<long>(milliseconds % 1000 * 1000);
        return slice;
    }

  private:
    // The tick count wraps; the difference doesn't.
    std::uint32_t Elapsed() const { return static_cast<std::uint32_t>(GetTickCount()) - startedAt_; }

    std::uint32_t maxTimeouts_;
    std::uint32_t totalMilliseconds_;
    const Atomic<bool>* stop_;
    std::uint32_t startedAt_;
    std::uint32_t timeouts_ = 0;
};

/// Where received bytes land. What a short read left of an allocation takes the next one, so that a sender of
/// single bytes costs at most twice the memory that its frame is long.
class ReceiveBuffer {
  public:
    /// Room for one read of a frame of which `missing` bytes have not arrived, owned by the message. Throws
    /// std::bad_alloc.
    BufferPiece Room(MessageBase& message, std::uint32_t missing) {
        const std::uint32_t wanted = std::min(missing, kMaxReadSize);
        if (spare_.length < wanted) {
            // Not through the virtual slot, which would take the piece for one of the fields.
            spare_ = message.MessageBase::AllocateBuffer(std::min(missing, 2 * kMaxReadSize));
        }
        return {wanted, spare_.data};
    }

    void Use(std::uint32_t count) {
        spare_.data += count;
        spare_.length -= count;
    }

  private:
    BufferPiece spare_{0, nullptr};
};

enum class ReadResult { kBytes, kNothing, kFailed, kEnded };

/// Waits one slice for bytes. kFailed: the wait itself failed, with `error` set.
ReadResult WaitForBytes(SOCKET s, Wait& wait, int& error) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(s, &readable);
    timeval slice = wait.NextSlice();
    const int ready = GuardedSelect(&readable, nullptr, nullptr, &slice);
    if (ready == 0) {
        wait.CountTimeout();
        return ReadResult::kNothing;
    }
    if (ready == SOCKET_ERROR) {
        Trace("Failed to receive an LSP messsage during a select function. Error=%d", WSAGetLastError());
        wait.CountTimeout();
        error = -1;
        return ReadResult::kFailed;
    }
    if (!FD_ISSET(s, &readable)) {
        wait.CountTimeout();
        error = ready;
        return ReadResult::kFailed;
    }
    return ReadResult::kBytes;
}

/// One read into the chain, of nothing behind the `missing` bytes. kFailed: the bytes could not be added,
/// with `error` set.
ReadResult ReadBytes(MessageBase& message, SOCKET s, ReceiveBuffer& target, std::uint32_t missing,
                     int& error) {
    BufferPiece piece = target.Room(message, missing);
    WSABUF buffer;
    buffer.len = piece.length;
    buffer.buf = reinterpret_cast<char*>(piece.data);
    DWORD received = 0;
    DWORD flags = 0;
    if (GuardedWSARecv(s, &buffer, 1, &received, &flags, nullptr, nullptr) == SOCKET_ERROR) {
        const int reason = WSAGetLastError();
        if (reason != WSAEMSGSIZE) {
            Trace("Exiting recv using socket.3 Socket = %d, Error = %d", static_cast<int>(s), reason);
            return ReadResult::kEnded;
        }
    } else {
        if (received == 0) return ReadResult::kEnded;
        piece.length = std::min<std::uint32_t>(received, piece.length);
    }
    target.Use(piece.length);
    if (message.AddReceivedBytes(piece)) return ReadResult::kBytes;
    error = 1;
    return ReadResult::kFailed;
}

/// The body of ReceiveMessage. Throws what the chain throws.
bool ReceiveFrame(MessageBase& message, SOCKET s, Wait& wait) {
    ReceiveBuffer buffer;
    std::uint32_t missing = message.HeaderSize;
    int error = 0;
    do {
        const ReadResult waited = WaitForBytes(s, wait, error);
        if (waited == ReadResult::kFailed) break;
        if (waited == ReadResult::kNothing) continue;

        if (ReadBytes(message, s, buffer, missing, error) == ReadResult::kEnded) {
            message.ClearBuffers();
            return false;
        }
        if (message.GetFrameState() != FrameState::kIncomplete) {
            if (message.Deserialize()) return true;
            Trace("Failed to deserialize in recv using socket.");
            message.ClearBuffers();
            return false;
        }
        if (error != 0) break;
        missing = message.GetExpectedLength() - message.GetTotalLength();
    } while (!wait.IsOver());

    message.ClearBuffers();
    Trace("Exiting recv using socket. Buffer incomplete. Elapsed: %d; error = %d",
          static_cast<int>(wait.Timeouts()), error);
    return false;
}

bool ReceiveWithin(MessageBase& message, SOCKET s, Wait& wait) noexcept {
    if (s == INVALID_SOCKET) {
        Trace("Exiting recv using socket.1");
        return false;
    }
    if (!message.ClearBuffers()) {
        Trace("Exiting recv using socket.2");
        return false;
    }
    try {
        return ReceiveFrame(message, s, wait);
    } catch (...) {
        Trace("Failed to receive an LSP messsage. Unknown error.");
        Trace("Exiting recv using socket.7");
        message.ClearBuffers();
        return false;
    }
}

/// What is still to be sent of a message.
class Remainder {
  public:
    Remainder(WSABUF* pieces, std::uint32_t count) : pieces_(pieces), count_(count) {}

    WSABUF* Pieces() const { return pieces_; }
    std::uint32_t Count() const { return count_; }

    void TakeOff(DWORD sent) {
        for (; count_ > 0 && sent >= pieces_->len; --count_)
            sent -= pieces_++->len;
        if (count_ == 0) return;
        pieces_->buf += sent;
        pieces_->len -= sent;
    }

  private:
    WSABUF* pieces_;
    std::uint32_t count_;
};

/// Waits until a non-blocking socket takes more. False when the time is over.
bool WaitForRoom(SOCKET s, DWORD begin) {
    const DWORD elapsed = GetTickCount() - begin;
    if (elapsed >= kSendMilliseconds) return false;
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(s, &writable);
    const DWORD left = kSendMilliseconds - elapsed;
    timeval timeout;
    timeout.tv_sec = static_cast<long>(left / 1000);
    timeout.tv_usec = static_cast<long>(left % 1000 * 1000);
    return GuardedSelect(nullptr, &writable, nullptr, &timeout) > 0;
}

/// Sends all of it, whether the socket blocks or not: whoever reads half a message can't read anything after
/// it. SOCKET_ERROR with the reason in the last error.
int SendWhole(SOCKET s, Remainder rest) {
    const DWORD begin = GetTickCount();
    for (;;) {
        DWORD sent = 0;
        const int result = GuardedWSASend(s, rest.Pieces(), rest.Count(), &sent, 0, nullptr, nullptr);
        if (result == 0) {
            rest.TakeOff(sent);
            if (rest.Count() == 0) return 0;
        } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
            return result;
        }
        if (WaitForRoom(s, begin)) continue;
        WSASetLastError(WSAETIMEDOUT);
        return SOCKET_ERROR;
    }
}

/// Throws what the message throws.
bool SendSerialized(MessageBase& message, SOCKET s, WSAOVERLAPPED* overlapped, bool* completed) {
    if (s == INVALID_SOCKET) {
        Trace("Failed to send on an invalid socket on socket %d.", static_cast<int>(s));
        return false;
    }
    if (!message.Serialize()) {
        Trace("Failed to serialize a message on socket %d", static_cast<int>(s));
        return false;
    }
    BufferPiece* array = nullptr;
    std::uint32_t count = 0;
    if (!message.GetAllBuffers(array, count, false)) {
        Trace("Failed to get all buffers for a message on socket %d", static_cast<int>(s));
        return false;
    }
    // Winsock takes its own copy of the array; the pieces stay with the message.
    const std::unique_ptr<BufferPiece[]> releaseArray(array);
    auto* const pieces = reinterpret_cast<WSABUF*>(array);
    const int result = overlapped == nullptr
                           ? SendWhole(s, {pieces, count})
                           : GuardedWSASend(s, pieces, count, nullptr, 0, overlapped, nullptr);
    if (result == 0) {
        if (completed != nullptr) *completed = true;
        return true;
    }
    const int error = WSAGetLastError();
    const bool pending = overlapped != nullptr && (error == WSA_IO_PENDING || error == WSAEWOULDBLOCK);
    if (pending) {
        if (completed != nullptr) *completed = false;
    } else {
        Trace("Failed to send an LSP message on socket %d (sizeof:%d). Error=%d, overlapped=%d",
              static_cast<int>(s), 4, error, overlapped != nullptr ? 1 : 0);
    }
    WSASetLastError(error);
    return pending;
}

}  // namespace

bool SendMessage(MessageBase& message, SOCKET s, WSAOVERLAPPED* overlapped, bool* completed) noexcept {
    try {
        return SendSerialized(message, s, overlapped, completed);
    } catch (...) {
        Trace("Failed to send an LSP messsage. Unknown error.");
        return false;
    }
}

bool ReceiveMessage(MessageBase& message, SOCKET s, const Atomic<bool>* stop,
                    std::uint32_t maxTimeouts) noexcept {
    AnswerLimits limits;
    limits.maxTimeouts = maxTimeouts;
    limits.totalMilliseconds = 0;
    limits.stop = stop;
    Wait wait(limits);
    return ReceiveWithin(message, s, wait);
}

bool ReceiveAnswer(LSPAnalyzerMessageResponse& message, SOCKET s, std::uint32_t requestId,
                   const AnswerLimits& limits) noexcept {
    Wait wait(limits);
    for (;;) {
        if (!ReceiveWithin(message, s, wait)) return false;
        if (message.DataLength < 0) {
            Trace("Failed to deserialize in recv using socket.");
            message.ClearBuffers();
            return false;
        }
        if (message.RequestId == requestId || message.RequestId == 0) return true;
        Trace("ERROR:Skipped an answer to request %d on socket %d, waiting for the answer to request %d.\n",
              static_cast<int>(message.RequestId), static_cast<int>(s), static_cast<int>(requestId));
        // Its pieces would otherwise be kept until the message goes back to its pool.
        message.ReleaseBuffers();
        if (wait.IsOver()) return false;
    }
}
