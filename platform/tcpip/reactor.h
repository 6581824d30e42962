// The one thread that watches descriptors for parked requests, network events and connects with a deadline.
// It starts on first need and ends with the last clean-up.
//
// Any thread may call, also with a socket's lock held; the reactor's own lock is a leaf and is never held
// while a socket is worked on.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/kernel/clock.h"

namespace tcpip {

class Socket;

/// Watches the socket's descriptor from now on, starting the thread if need be; `*tag` names it to the
/// reactor. 0 or an errno value.
int ReactorWatch(const std::shared_ptr<Socket>& socket, int fd, std::uint64_t* tag) noexcept;

/// Watches the descriptor again that took the place of a watched one. 0 or an errno value.
int ReactorWatchAgain(int fd, std::uint64_t tag) noexcept;

/// Forgets the socket; its descriptor may be closed before or after.
void ReactorForget(std::uint64_t tag) noexcept;

/// Looks at a watched socket again when the clock reaches the deadline.
void ReactorLookAt(std::uint64_t tag, platform::Deadline deadline) noexcept;

/// Ends the thread; no socket may be watched any more. Waits for it.
void StopReactor() noexcept;

}  // namespace tcpip
