// Whole messages over a TCP socket to and from the analyzer, through the Winsock API: one gather send per
// message, and receives that never take a byte of the following frame.
//
// Nothing here closes a socket or retries; the callers decide. A message and the answers on its socket are
// one thread's at a time. The thread's last error tells why a send failed.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

#include "base/atomic.h"
#include "messages/analyzer_messages.h"
#include "messages/guarded_winsock.h"
#include "messages/message_limits.h"

// A macro of the window functions, which would rename the function below.
#undef SendMessage

/// Serialises the message and sends it. True when it was sent or, with `overlapped`, is pending: `completed`
/// (may be null) tells which. A pending message must live until its completion arrives. Without `overlapped`
/// the whole message is sent, within kSendMilliseconds on a non-blocking socket; after a failure a part of it
/// may have been, and the connection is of no use any more.
bool SendMessage(MessageBase& message, SOCKET s, WSAOVERLAPPED* overlapped = nullptr,
                 bool* completed = nullptr) noexcept;

/// Receives exactly one frame from a blocking socket into an empty message and deserialises it. Gives up,
/// with an empty chain, when more than `maxTimeouts` (0: no limit) 3-second waits pass without a byte, when
/// `stop` (may be null) is set, when the connection ends or fails, or when the frame is unreadable.
bool ReceiveMessage(MessageBase& message, SOCKET s, const Atomic<bool>* stop,
                    std::uint32_t maxTimeouts) noexcept;

/// How long an answer is waited for, all frames that are skipped meanwhile included.
struct AnswerLimits {
    std::uint32_t maxTimeouts = kDirectWaitTimeouts;
    /// 0: no limit.
    std::uint32_t totalMilliseconds = kDirectWaitMilliseconds;
    const Atomic<bool>* stop = nullptr;
};

/// Receives frames until one answers `requestId` (or carries RequestId 0), which is left in the message. Any
/// other frame is traced and skipped within the same limits. False as for ReceiveMessage, and for a frame
/// whose fields begin inside its header.
bool ReceiveAnswer(LSPAnalyzerMessageResponse& message, SOCKET s, std::uint32_t requestId,
                   const AnswerLimits& limits = AnswerLimits()) noexcept;
