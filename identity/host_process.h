// Who the host process is, as far as it is known without waiting. The texts lie in storage that is never
// destroyed: a thread may still copy one while the process ends.
#pragma once

#include <cstddef>

#include "base/process_locks.h"

constexpr std::size_t kImagePathSize = 260;
constexpr std::size_t kUserNameSize = 272;
/// Path of the host's executable, or "<Unknown>". Read and written under IdentityLock.
extern char ProcessImagePath[kImagePathSize] QX_GUARDED_BY(IdentityLock);
/// DOMAIN\user in UTF-8, or "<Unknown>". Read and written under IdentityLock.
extern char ProcessUserName[kUserNameSize] QX_GUARDED_BY(IdentityLock);

/// Captures the host's executable, process id and user, decides whether it is one of the product's own
/// processes, and starts the collection of what takes longer. Called with GlobalLock held, at every start-up.
void CaptureHostProcess();
