// The state that the provider keeps once per host process. The heap, the upcall table and the event exist
// from the first start-up to the last clean-up. No object here has a destructor that calls out, so nothing
// runs after detach.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include "base/atomic.h"
#include "base/process_locks.h"

/// TLS index of the entry whose lower provider the thread is calling; TLS_OUT_OF_INDEXES when there was none
/// left.
extern DWORD ThreadSlot;
/// This library's own handle.
extern HINSTANCE ModuleHandle;
/// The layer's own heap: catalog entries, contexts and overlapped records. Null between clean-up and
/// start-up.
extern Atomic<HANDLE> PrivateHeap;
/// The upcalls given to the first start-up.
extern WSPUPCALLTABLE UpcallTable;
/// Manual-reset; set each time a context joins a list. Null between clean-up and start-up.
extern Atomic<HANDLE> ContextAddedEvent;
/// Id of the thread with the layer's own window, to which lower providers post network events; 0: none.
extern Atomic<DWORD> HiddenWindowThread;

/// The library is being detached; a clean-up then does nothing.
extern Atomic<bool> Detaching;
/// The host process; 0 before the first start-up.
extern Atomic<DWORD> CurrentProcessId;
/// A process id that the analyzer wants left alone; 0 until it names one.
extern Atomic<DWORD> ExemptProcessId;
/// The host is one of the product's own processes. Set at start-up, never cleared.
extern Atomic<bool> OwnProcess;

/// {5d0b7a3e-91c4-4f62-a7d8-3e6c2b90f415}, the ProviderId of this layer's catalog entries.
extern const GUID kProviderGuid;

/// Whether the analyzer has asked for this process to be left alone.
inline bool IsProcessExempt() {
    const DWORD exempt = ExemptProcessId;
    return exempt != 0 && exempt == CurrentProcessId;
}
