// The edges of the test host: threads, and the end of the process, are the system's own business.
#include "platform/kernel/fault_points.h"

namespace platform {

void PlatformScope::EnterOutermost() noexcept {}

void PlatformScope::LeaveOutermost() noexcept {}

}  // namespace platform
