// See window_life.h.
#include "provider/window/window_life.h"

#include <new>

#include "base/this_library.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

namespace {

HANDLE MakeManualEvent() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

}  // namespace

WindowLife* MakeWindowLife() {
    auto* const life = new (std::nothrow) WindowLife;
    if (life == nullptr) return nullptr;
    life->Holders = 1;
    life->Ready = MakeManualEvent();
    life->Stop = MakeManualEvent();
    life->Done = MakeManualEvent();
    life->PostToApplication = UpcallTable.lpWPUPostMessage;
    if (life->Ready != nullptr && life->Stop != nullptr && life->Done != nullptr)
        life->Library = ReferenceThisLibrary();
    if (life->Library != nullptr) return life;
    ReleaseWindowLife(life);
    return nullptr;
}

void ReleaseWindowLife(WindowLife* life) {
    if (life->Holders.Decrement() > 0) return;
    SafeCloseHandle(life->Thread);
    SafeCloseHandle(life->Ready);
    SafeCloseHandle(life->Stop);
    SafeCloseHandle(life->Done);
    delete life;
}
