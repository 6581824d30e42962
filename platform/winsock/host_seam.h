// What the Winsock host needs of the stand-in beyond the Windows interface: fault points on its functions,
// and the boundary around its calls into providers.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "platform/kernel/fault_points.h"

#ifdef _WIN32

namespace winsock_host {

using HostCall = platform::PlatformCall;
using platform::ProviderBoundary;

/// Closes a handle where no call of an application or provider is under way.
inline void CloseOwnHandle(HANDLE handle) {
    CloseHandle(handle);
}

}  // namespace winsock_host

#define QX_HOST_TLS __thread

#else

#include "platform/kernel/handles.h"

namespace winsock_host {

using HostCall = platform::PlatformCall;
using platform::ProviderBoundary;

/// Closes a handle where no call of an application or provider is under way; no fault point.
inline void CloseOwnHandle(HANDLE handle) {
    platform::CloseOpenHandle(handle);
}

}  // namespace winsock_host

// The host lies in a library that is there from the program's start, so the fast model is safe.
#define QX_HOST_TLS __attribute__((tls_model("initial-exec"))) __thread

#endif
