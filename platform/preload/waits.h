// Waiting as the kernel's own blocking calls do, on the program's descriptor.
#pragma once

#include <cstdint>

namespace preload {

/// 0 when one of the events holds, EAGAIN when the time is up (nanoseconds, 0: no limit), EINTR when a signal
/// was handled and the call is not to be begun again.
int WaitFor(int descriptor, short events, std::int64_t timeout);

}  // namespace preload
