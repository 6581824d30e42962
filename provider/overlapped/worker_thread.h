// The threads of the overlapped manager, and the time that they are given to end. A thread that has not ended
// may still execute the library's code: unloading under it is the worst that could happen.
//
// A thread says that it is done as its last act, since it can't end while the loader's lock is held, as by a
// detach that waits for it.
#pragma once

#include <windows.h>

/// Zero-filled: no thread.
struct WorkerThread {
    HANDLE Thread;
    HANDLE Done;  ///< set by the thread
};

/// Starts a thread. False, with nothing left, when there is none to be had.
bool StartWorkerThread(LPTHREAD_START_ROUTINE procedure, LPVOID argument, WorkerThread* worker);

/// A time that several threads share.
class StopDeadline {
  public:
    explicit StopDeadline(DWORD milliseconds) : start_(GetTickCount()), milliseconds_(milliseconds) {}

    /// Waits until the thread is done and releases its handles; false when the time is over. Not alertable,
    /// since GlobalLock or the loader's lock may be held, under which no routine of the application may run.
    bool Await(WorkerThread* worker) const;

  private:
    DWORD Left() const;

    DWORD start_;
    DWORD milliseconds_;
};
