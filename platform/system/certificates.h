// The number of certificate stores, messages and contexts in use.
#pragma once

namespace platform {

int CountCryptObjects() noexcept;

}  // namespace platform
