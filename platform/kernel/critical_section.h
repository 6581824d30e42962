// The number of critical sections in use.
#pragma once

namespace platform {

/// Sections initialised and not deleted.
int CountCriticalSections() noexcept;

}  // namespace platform
