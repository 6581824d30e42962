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

/// A mark that stays would exempt the application's next socket, so a failure is not taken at its word. The
/// last error may be that of the call that the scope was made for.
void WriteSlot(void* value) {
    if (Slot == TLS_OUT_OF_INDEXES) return;
    const DWORD lastError = GetLastError();
    if (TlsSetValue(Slot, value)) return;
    TlsSetValue(Slot, value);
    SetLastError(lastError);
}

void* ValueOf(LayerCall::Kind kind) {
    return reinterpret_cast<void*>(static_cast<ULONG_PTR>(kind));
}

}  // namespace

LayerCall::LayerCall(Kind kind) : outer_(ReadSlot()), changes_(outer_ != ValueOf(kind)) {
    if (changes_) WriteSlot(ValueOf(kind));
}

LayerCall::~LayerCall() {
    if (changes_) WriteSlot(outer_);
}

bool LayerCall::IsUnderWay() {
    return ReadSlot() != nullptr;
}

bool LayerCall::MakesSocket() {
    return ReadSlot() == ValueOf(Kind::kMakesSocket);
}

void LayerCall::AllocateSlot() {
    Slot = TlsAlloc();
}

void LayerCall::FreeSlot() {
    if (Slot != TLS_OUT_OF_INDEXES) TlsFree(Slot);
    Slot = TLS_OUT_OF_INDEXES;
}
