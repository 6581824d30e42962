// Waiting for the kernel until a moment of the platform clock. A wait without a deadline is one poll; one
// with a deadline takes a waker from a pool, which a change of the clock uses to end the poll, so that the
// time left is computed anew.
//
// Any thread may call; no lock may be held.
#pragma once

#include <cstddef>

#include "platform/kernel/clock.h"
#include "platform/tcpip/kernel_socket.h"

namespace tcpip {

/// Room that PollUntil needs behind the caller's entries.
constexpr std::size_t kPollSpare = 1;

/// Polls until something is ready or the deadline has passed. `entries` has room for `count + kPollSpare`.
/// The number of ready entries, 0 when the deadline has passed, -1 with an errno value in `*error`.
int PollUntil(kernel::PollEntry* entries, std::size_t count, platform::Deadline deadline, int* error);

/// Waits for one descriptor. 0 when it is ready, WSAETIMEDOUT, or another Winsock error.
int WaitReady(int fd, unsigned events, platform::Deadline deadline);

/// Closes the pooled wakers.
void CloseWakers();

}  // namespace tcpip
