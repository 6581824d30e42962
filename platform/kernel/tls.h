// The number of thread-local storage slots in use.
#pragma once

namespace platform {

/// Slots given out by TlsAlloc and not freed.
int CountTlsSlots() noexcept;

}  // namespace platform
