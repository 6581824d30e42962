// The threads of the overlapped manager, and the time that they are given to end. A thread that has not ended
// may still execute the library's code: unloading under it is the worst that could happen.
//
// A thread says that it is done as its last act, since it can't end while the loader's lock is held, as by a
// detach that waits for it. Nor can it begin then, but there a detach must not come at all: it would take
// away the code that the thread begins in. So what is started keeps the library until it has begun. Not
// longer: the detach of an application that unloads the library without a clean-up is to stop the threads,
// and would never come if they held on to it.
#pragma once

#include <windows.h>

struct BeginningThreads;

/// Zero-filled: no thread.
struct WorkerThread {
    HANDLE Thread;
    HANDLE Done;  ///< set by the thread
};

/// Starts threads, and keeps the library loaded until they have begun. Making and destroying one takes the
/// loader's lock, so OverlappedLock is not held, and the caller is inside a call, for which the application
/// keeps the library too.
class ThreadStarter {
  public:
    ThreadStarter();
    ~ThreadStarter();
    ThreadStarter(const ThreadStarter&) = delete;
    ThreadStarter& operator=(const ThreadStarter&) = delete;

    /// False, with nothing left, when there is no thread to be had. Any lock may be held.
    bool Start(LPTHREAD_START_ROUTINE procedure, LPVOID argument, WorkerThread* worker) const;

  private:
    BeginningThreads* beginning_;  // null: there is no memory, or no reference on the library
};

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
