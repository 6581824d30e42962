// The time that the threads of the overlapped manager are given to end, all of them together. A thread that
// has not ended may still execute the library's code: unloading under it is the worst that could happen.
#pragma once

#include <windows.h>

class StopDeadline {
  public:
    explicit StopDeadline(DWORD milliseconds) : start_(GetTickCount()), milliseconds_(milliseconds) {}

    /// Waits for the end of a thread; false when the time is over. Not alertable, since GlobalLock or the
    /// loader's lock may be held, under which no routine of the application may run.
    bool Await(HANDLE thread) const {
        DWORD result = WaitForSingleObject(thread, Left());
        if (result == WAIT_FAILED) result = WaitForSingleObject(thread, Left());
        return result == WAIT_OBJECT_0;
    }

  private:
    DWORD Left() const {
        const DWORD waited = GetTickCount() - start_;
        return waited < milliseconds_ ? milliseconds_ - waited : 0;
    }

    DWORD start_;
    DWORD milliseconds_;
};
