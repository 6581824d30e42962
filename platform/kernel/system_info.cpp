// The last error, and what the processor and memory are like.
#include <sched.h>
#include <unistd.h>
#include <windows.h>

#include <cstring>

#include "platform/kernel/thread_state.h"

namespace platform {

__thread ThreadState ThisThreadState;

}  // namespace platform

DWORD GetLastError() {
    return platform::CurrentThreadState().lastError;
}
void SetLastError(DWORD error) {
    platform::CurrentThreadState().lastError = error;
}

void GetSystemInfo(LPSYSTEM_INFO info) {
    std::memset(info, 0, sizeof(*info));
    cpu_set_t processors;
    CPU_ZERO(&processors);
    const int count = sched_getaffinity(0, sizeof(processors), &processors) == 0 ? CPU_COUNT(&processors) : 1;
    info->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
    info->dwPageSize = static_cast<DWORD>(sysconf(_SC_PAGESIZE));
    info->dwAllocationGranularity = 65536;
    info->dwNumberOfProcessors = static_cast<DWORD>(count);
    info->dwActiveProcessorMask = count >= 64 ? ~DWORD_PTR{0} : (DWORD_PTR{1} << count) - 1;
}
