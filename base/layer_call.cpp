// See layer_call.h. The kind lies in the thread's slot as a number.
#include "base/layer_call.h"

#include <winsock2.h>

#include <windows.h>

namespace {

DWORD Slot = TLS_OUT_OF_INDEXES;

/// The slot's value; reading it would clear the last error.
void* ReadSlot() {
    if (Slot == TLS_OUT_OF_INDEXES) return nullptr;
    const DWORD lastError = GetLastError();
    void* const value = TlsGetValue(Slot);
    SetLastError(lastError);
    return value;
}

/// A mark that stays would exempt the application's next socket, so a failure is not taken at its word.
void WriteSlot(void* value) {
    if (Slot != TLS_OUT_OF_INDEXES && !TlsSetValue(Slot, value)) TlsSetValue(Slot, value);
}

}  // namespace

LayerCall::LayerCall(Kind kind) : outer_(ReadSlot()) {
    WriteSlot(reinterpret_cast<void*>(static_cast<ULONG_PTR>(kind)));
}

LayerCall::~LayerCall() {
    WriteSlot(outer_);
}

bool LayerCall::IsUnderWay() {
    return ReadSlot() != nullptr;
}

bool LayerCall::MakesSocket() {
    return ReadSlot() == reinterpret_cast<void*>(static_cast<ULONG_PTR>(Kind::kMakesSocket));
}

void LayerCall::AllocateSlot() {
    Slot = TlsAlloc();
}

void LayerCall::FreeSlot() {
    if (Slot != TLS_OUT_OF_INDEXES) TlsFree(Slot);
    Slot = TLS_OUT_OF_INDEXES;
}
