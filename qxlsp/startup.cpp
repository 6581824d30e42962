// WSPStartup and WSPCleanup: what is started by the first start-up of the process and stopped by the last
// clean-up, in their fixed orders. Both run under GlobalLock, which the clean-up leaves only while the relay,
// the window and the overlapped workers end; start-ups wait for the end of a clean-up.
#include "qxlsp/startup.h"

#include <ws2spi.h>

#include <guarded_call.h>

#include "base/this_library.h"
#include "base/trace.h"
#include "identity/host_process.h"
#include "identity/process_identity.h"
#include "messages/buffer_arena.h"
#include "protocols/protocol_table.h"
#include "provider/catalog/catalog.h"
#include "provider/contexts/catalog_teardown.h"
#include "provider/contexts/handle_locks.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"
#include "provider/overlapped/overlapped_manager.h"
#include "provider/process_state.h"
#include "provider/window/async_window.h"
#include "relay/split/relay_life.h"

namespace {

/// How long threads that were told to end are given before what they use goes.
constexpr DWORD kEndGraceMilliseconds = 200;

/// Blocks of the memory for messages and relayed bytes.
constexpr std::uint32_t kArenaBlockBytes = 0x20000;

/// A start-up that fails for a reason of the system's.
constexpr int kStartupFailure = WSAEPROVIDERFAILEDINIT;

/// Successful start-ups without their clean-up. Guarded by GlobalLock.
LONG StartupCount = 0;

/// The last clean-up is under way; start-ups wait for its end. Guarded by GlobalLock.
bool CleaningUp = false;

constexpr WSPPROC_TABLE kLayerOperations = {
    WSPAccept,
    WSPAddressToString,
    WSPAsyncSelect,
    WSPBind,
    WSPCancelBlockingCall,
    WSPCleanup,
    WSPCloseSocket,
    WSPConnect,
    WSPDuplicateSocket,
    WSPEnumNetworkEvents,
    WSPEventSelect,
    WSPGetOverlappedResult,
    WSPGetPeerName,
    WSPGetSockName,
    WSPGetSockOpt,
    WSPGetQOSByName,
    WSPIoctl,
    WSPJoinLeaf,
    WSPListen,
    WSPRecv,
    WSPRecvDisconnect,
    WSPRecvFrom,
    WSPSelect,
    WSPSend,
    WSPSendDisconnect,
    WSPSendTo,
    WSPSetSockOpt,
    WSPShutdown,
    WSPSocket,
    WSPStringToAddress,
};

/// What the first start-up builds: heap, upcalls, event, catalog, overlapped manager.
bool BuildLayer(const WSPUPCALLTABLE& upcalls) {
    StartRelay();
    // Without memory for it, each buffer gets a block of its own.
    TheBufferArena().Init(kArenaBlockBytes);
    {
        // A thread with a handle that is none any more may look it up at any time.
        const AllHandleGroups groups;
        UpcallTable = upcalls;
    }
    if (!CreatePrivateHeap()) return false;
    ContextAddedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ContextAddedEvent == nullptr) return false;
    {
        const Locker lock(CatalogLock);
        INT error = 0;
        if (!EnumerateLspCatalog(&CatalogEntries, &CatalogCount, &error)) return false;
    }
    StartOverlappedManager();
    AllowAsyncWindow();
    return true;
}

/// Releases what a failed first start-up built. Its workers can't end, nor even begin, while the loader's
/// lock is held, as by a library that starts Winsock while it is loaded.
void DropLayer() {
    StopProcessInfoCollection();
    const bool workersEnded = StopOverlappedManager();
    FreeOverlappedRecords();
    INT ignored = 0;
    if (!FreeLspCatalog(false, &ignored) || !workersEnded) KeepThisLibraryLoaded();
    // There was no socket yet that a message could be about.
    DestroyBufferArena();
}

/// 0, with `*entry` started, or the error.
int StartEntry(WORD version, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls, LspEntry** entry) {
    if (StartupCount == 0 && !BuildLayer(upcalls)) return kStartupFailure;
    {
        const Locker lock(CatalogLock);
        *entry = FindMatchingLspEntryForProtocolInfo(info, CatalogEntries, CatalogCount);
    }
    if (*entry == nullptr) {
        Trace("WSPStartup: FindMatchingLspEntryForProtocolInfo failed!");
        return kStartupFailure;
    }
    if ((*entry)->LowerStartupCount > 0) return 0;
    INT error = 0;
    if (InitializeProvider(*entry, version, info, upcalls, &error) == 0) return 0;
    Trace("WSPStartup: InitializeProvider failed: %d", error);
    return error;
}

/// Ends the workers of the overlapped manager. They take GlobalLock until they have ended, so it is not held.
/// False when one of them is still there.
bool StopWorkers() {
    const bool ended = StopOverlappedManager();
    Sleep(kEndGraceMilliseconds);
    return ended;
}

/// Returns with GlobalLock held and no clean-up under way. (The analysis does not follow a holder that is
/// handed on.)
void WaitForCleanUp(Locker& global) QX_NO_THREAD_SAFETY_ANALYSIS {
    while (CleaningUp) {
        global.Leave();
        Sleep(1);
        global.Enter();
    }
}

/// Starts the layer up once more; 0, with the lower provider's data in `*data`, or the error.
int StartUp(WORD version, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls, LPWSPDATA data) {
    Locker global(qx::GlobalLock);
    WaitForCleanUp(global);
    CaptureHostProcess();
    LspEntry* entry = nullptr;
    const int result = StartEntry(version, info, upcalls, &entry);
    if (result != 0) {
        Trace("ERROR:WSPStartup failed!");
        if (StartupCount == 0) DropLayer();
        return result;
    }
    ++StartupCount;
    *data = entry->LowerData;
    CompileProtocolPatterns();
    return 0;
}

}  // namespace

extern "C" int WSPAPI WSPStartup(WORD wVersionRequested, LPWSPDATA lpWSPData,
                                 LPWSAPROTOCOL_INFOW lpProtocolInfo, WSPUPCALLTABLE upcallTable,
                                 LPWSPPROC_TABLE lpProcTable) {
    // The caller's memory is read before the lock is taken, and written after it was left.
    WSAPROTOCOL_INFOW info;
    WSPDATA data;
    if (lpProtocolInfo == nullptr || lpWSPData == nullptr || lpProcTable == nullptr ||
        !GuardedCall([&]() noexcept { info = *lpProtocolInfo; })) {
        return WSAEFAULT;
    }
    const int result = StartUp(wVersionRequested, &info, upcallTable, &data);
    if (result != 0) return result;
    if (GuardedCall([&]() noexcept {
            *lpWSPData = data;
            *lpProcTable = kLayerOperations;
        })) {
        return 0;
    }
    INT ignored = 0;
    WSPCleanup(&ignored);
    return WSAEFAULT;
}

int WSPAPI WSPCleanup(LPINT error) {
    if (Detaching) return 0;
    Locker global(qx::GlobalLock);
    if (StartupCount == 0) return Fail(WSANOTINITIALISED, error);
    if (--StartupCount > 0) return 0;

    CleaningUp = true;
    StopProcessInfoCollection();
    global.Leave();
    const bool relayEnded = StopRelay();
    StopAsyncWindow();
    const bool workersEnded = StopWorkers() && relayEnded;
    global.Enter();
    FreeOverlappedRecords();
    if (FreeLspCatalog(false, error) && workersEnded) {
        // Only now is it certain that no other thread still holds a message.
        TheBufferArena().Destroy();
    } else {
        KeepThisLibraryLoaded();
    }
    FreeProtocolPatterns();
    CleaningUp = false;
    return 0;
}

void ReleaseLayerAtDetach() {
    const bool relayEnded = StopRelay();
    ForgetProcessInfoCollection();
    {
        Locker global(qx::GlobalLock);
        if (StartupCount != 0) {
            StartupCount = 0;
            global.Leave();
            StopAsyncWindow();
            StopWorkers();
            global.Enter();
            INT ignored = 0;
            FreeLspCatalog(true, &ignored);
            FreeProtocolPatterns();
            CleaningUp = false;
        }
    }
    if (!relayEnded) return;
    DestroyRelay();
    DestroyBufferArena();
}
