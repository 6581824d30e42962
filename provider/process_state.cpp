// The one instance of the process-wide state; what guards each value stands at its declaration.
#include "provider/process_state.h"

DWORD ThreadSlot = TLS_OUT_OF_INDEXES;
HINSTANCE ModuleHandle = nullptr;
Atomic<HANDLE> PrivateHeap;
WSPUPCALLTABLE UpcallTable = {};
Atomic<HANDLE> ContextAddedEvent;
Atomic<DWORD> HiddenWindowThread;

Atomic<bool> Detaching;

Atomic<DWORD> CurrentProcessId;
Atomic<DWORD> ExemptProcessId;
Atomic<bool> OwnProcess;

const GUID kProviderGuid = {0x5d0b7a3e, 0x91c4, 0x4f62, {0xa7, 0xd8, 0x3e, 0x6c, 0x2b, 0x90, 0xf4, 0x15}};
