// One life of the hidden window, from the start of its thread to its end. The record is counted: the thread
// holds it, whoever waits for the window, and the place where the life in force is kept; the last holder
// frees it. So a thread that could not be awaited finds it whatever has been started since.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include "base/atomic.h"

struct WindowLife {
    enum class Phase { kStarting, kRunning, kFailed, kEnding };

    HANDLE Thread = nullptr;
    DWORD ThreadId = 0;
    HANDLE Ready = nullptr;     ///< manual-reset: the window is there, or never will be
    HANDLE Stop = nullptr;      ///< manual-reset: the thread is to end
    HANDLE Done = nullptr;      ///< manual-reset: set by the thread as its last act but for its exit
    HMODULE Library = nullptr;  ///< the thread's reference on this library
    LPWPUPOSTMESSAGE PostToApplication = nullptr;
    Atomic<HWND> Window;
    Atomic<Phase> State;
    Atomic<LONG> Holders;
};

/// A record with its events and a reference on this library, held once. Null when one of them can't be had.
WindowLife* MakeWindowLife();

/// Gives back everything but the reference on the library, which goes with the thread's exit.
void ReleaseWindowLife(WindowLife* life);
