// The state that the library keeps once per host process, and the order of its locks.
//
// The critical sections exist from library attach to detach, the heap, the upcall table and the event from
// the first start-up to the last clean-up. No object here has a destructor that calls out, so nothing runs
// after detach.
//
// Order in which locks may be nested (a thread holding one may take those to its right):
//   SocketCreateCloseLock -> GlobalLock -> CatalogLock -> an entry's ListLock
//   GlobalLock -> a context's Lock -> OverlappedLock
//   a relay record's locks -> SocketCreateCloseLock
// Creating or closing a socket of the layer's own takes SocketCreateCloseLock and comes back into the layer,
// which takes GlobalLock: so no such socket is ever made or closed with GlobalLock or a lock to the right of
// it held. IdentityLock, PendingResponseLock, PerIODataPoolLock and RelayIndexLock are leaf locks.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <cstddef>

#include "base/atomic.h"
#include "base/locker.h"

namespace qx {
/// Held for the whole of a start-up and a clean-up, and around every lookup of a context and change of its
/// reference count. In a namespace because <windows.h> declares a function of that name.
extern CriticalSection GlobalLock;
}  // namespace qx
/// Guards the overlapped manager's lists and handles.
extern CriticalSection OverlappedLock;
/// Guards the relay's pool of operation records. Leaf.
extern CriticalSection PerIODataPoolLock;
/// Guards the counter behind relay indexes. Leaf.
extern CriticalSection RelayIndexLock;
/// Guards the waiters for analyzer answers. Leaf.
extern CriticalSection PendingResponseLock;
/// Guards the array of catalog entries, its count and its lifetime.
extern CriticalSection CatalogLock;
/// Guards the process's identity texts (the two below and the collected ones); held only for a copy. Leaf.
extern CriticalSection IdentityLock;
/// Held around every creation and every close of a socket of the layer's own.
extern CriticalSection SocketCreateCloseLock;

/// Initialises the eight sections at attach, in their fixed order.
void InitializeLocks();

/// Deletes them at detach, in the same order. No thread may be inside the library's operations.
void DeleteLocks();

/// TLS index of the entry whose lower provider the thread is calling; TLS_OUT_OF_INDEXES when there was none
/// left.
extern DWORD ThreadSlot;
/// This library's own handle.
extern HINSTANCE ModuleHandle;
/// The layer's own heap: catalog entries, contexts and overlapped records. Null between clean-up and
/// start-up.
extern HANDLE PrivateHeap;
/// The upcalls given to the first start-up.
extern WSPUPCALLTABLE UpcallTable;
/// Manual-reset; set each time a context joins a list. Null between clean-up and start-up.
extern HANDLE ContextAddedEvent;

/// The library is being detached; a clean-up then does nothing.
extern Atomic<bool> Detaching;
/// Tells the relay worker to end.
extern Atomic<bool> RelayShutdown;
/// The relay's listener, INVALID_SOCKET when there is none.
extern Atomic<SOCKET> RelayListenSocket;
/// The relay's completion port, null when there is none.
extern Atomic<HANDLE> RelayCompletionPort;

/// The host process; 0 before the first start-up.
extern Atomic<DWORD> CurrentProcessId;
/// A process id that the analyzer wants left alone; 0 until it names one.
extern Atomic<DWORD> ExemptProcessId;
/// The host is one of the product's own processes. Set at start-up, never cleared.
extern Atomic<bool> OwnProcess;

/// Texts about the host, in storage that is never destroyed: a thread may still copy one while the process
/// ends.
constexpr std::size_t kImagePathSize = 260;
constexpr std::size_t kUserNameSize = 272;
/// Path of the host's executable, or "<Unknown>". Read and written under IdentityLock.
extern char ProcessImagePath[kImagePathSize] QX_GUARDED_BY(IdentityLock);
/// DOMAIN\user in UTF-8, or "<Unknown>". Read and written under IdentityLock.
extern char ProcessUserName[kUserNameSize] QX_GUARDED_BY(IdentityLock);

/// {5d0b7a3e-91c4-4f62-a7d8-3e6c2b90f415}, the ProviderId of this layer's catalog entries.
extern const GUID kProviderGuid;

/// Whether the analyzer has asked for this process to be left alone.
inline bool IsProcessExempt() {
    const DWORD exempt = ExemptProcessId;
    return exempt != 0 && exempt == CurrentProcessId;
}
