// The one instance of the process-wide state; what guards each value stands at its declaration.
#include "provider/process_state.h"

namespace qx {
CriticalSection GlobalLock;
}
CriticalSection OverlappedLock;
CriticalSection PerIODataPoolLock;
CriticalSection RelayIndexLock;
CriticalSection PendingResponseLock;
CriticalSection CatalogLock;
CriticalSection IdentityLock;
CriticalSection SocketCreateCloseLock;

DWORD ThreadSlot = TLS_OUT_OF_INDEXES;
HINSTANCE ModuleHandle = nullptr;
HANDLE PrivateHeap = nullptr;
WSPUPCALLTABLE UpcallTable = {};
HANDLE ContextAddedEvent = nullptr;

Atomic<bool> Detaching{false};
Atomic<bool> RelayShutdown{false};
Atomic<SOCKET> RelayListenSocket(INVALID_SOCKET);
Atomic<HANDLE> RelayCompletionPort(nullptr);

Atomic<DWORD> CurrentProcessId;
Atomic<DWORD> ExemptProcessId;
Atomic<bool> OwnProcess;

char ProcessImagePath[kImagePathSize] = "";
char ProcessUserName[kUserNameSize] = "<Unknown>";

const GUID kProviderGuid = {0x5d0b7a3e, 0x91c4, 0x4f62, {0xa7, 0xd8, 0x3e, 0x6c, 0x2b, 0x90, 0xf4, 0x15}};

namespace {

CriticalSection* const kLocks[] = {&qx::GlobalLock, &OverlappedLock,       &PerIODataPoolLock,
                                   &RelayIndexLock, &PendingResponseLock,  &CatalogLock,
                                   &IdentityLock,   &SocketCreateCloseLock};

}  // namespace

void InitializeLocks() {
    for (CriticalSection* lock : kLocks)
        lock->Initialize();
}

void DeleteLocks() {
    for (CriticalSection* lock : kLocks)
        lock->Delete();
}
