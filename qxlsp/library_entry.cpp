// The library's entry at attach and detach, and the export by which an installer finds the layer's catalog
// entries.
#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include "base/layer_call.h"
#include "messages/message_pool.h"
#include "provider/contexts/handle_locks.h"
#include "provider/process_state.h"
#include "provider/window/async_window.h"
#include "qxlsp/startup.h"
#include "relay/split/relay_life.h"

namespace {

void Attach(HINSTANCE instance) {
    ModuleHandle = instance;
    // A module that is attached again without having left memory finds its values from before.
    Detaching = false;
    StartRelay();
    ForgetAsyncWindow();
    InitializeLocks();
    InitializeHandleLocks();
    ThreadSlot = TlsAlloc();
    LayerCall::AllocateSlot();
}

void Detach(bool unloading) {
    Detaching = true;
    RelayShutdown = true;
    // A process that ends has ended its other threads where they were, with locks in their hands perhaps, and
    // takes everything with it: the safest is to touch nothing.
    if (!unloading) return;
    ReleaseLayerAtDetach();
    DeleteHandleLocks();
    DeleteLocks();
    DestroyMessagePool();
    LayerCall::FreeSlot();
    if (ThreadSlot != TLS_OUT_OF_INDEXES) TlsFree(ThreadSlot);
    ThreadSlot = TLS_OUT_OF_INDEXES;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) Attach(instance);
    if (reason == DLL_PROCESS_DETACH) Detach(reserved == nullptr);
    return TRUE;
}

extern "C" void WSPAPI GetLspGuid(LPGUID lpGuid) {
    *lpGuid = kProviderGuid;
}
