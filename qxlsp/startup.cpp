// WSPStartup and WSPCleanup: what is started by the first start-up of the process and stopped by the last
// clean-up, in their fixed orders. Both run under GlobalLock, which the clean-up leaves only while the
// overlapped workers end; start-ups wait for the end of a clean-up.
#include "qxlsp/startup.h"

#include <ws2spi.h>

#include "base/trace.h"
#include "identity/host_process.h"
#include "identity/process_identity.h"
#include "messages/buffer_arena.h"
#include "protocols/protocol_table.h"
#include "provider/catalog/catalog.h"
#include "provider/guarded_sockets.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"
#include "provider/overlapped/overlapped_manager.h"
#include "provider/process_state.h"
#include "relay/channel/analyzer_channel.h"

namespace {

/// How long threads that were told to end are given before what they use goes.
constexpr DWORD kEndGraceMilliseconds = 200;

/// Byte count of the completion packet that ends the relay worker.
constexpr DWORD kStopPacket = 0xFFFFFFFF;

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
    RelayShutdown = false;
    if (!CreatePrivateHeap()) return false;
    UpcallTable = upcalls;
    ContextAddedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ContextAddedEvent == nullptr) return false;
    {
        const Locker lock(CatalogLock);
        INT error = 0;
        if (!EnumerateLspCatalog(&CatalogEntries, &CatalogCount, &error)) return false;
    }
    StartOverlappedManager();
    return true;
}

/// Keeps the library's code for threads that a clean-up overtook inside it: once in them, nobody could tell
/// when the last instruction has been executed.
void KeepLibraryLoaded() {
    WCHAR path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(ModuleHandle, path, MAX_PATH);
    if (length != 0 && length < MAX_PATH) LoadLibraryW(path);
}

/// Releases what a failed first start-up built. Its workers can't end, nor even begin, while the loader's
/// lock is held, as by a library that starts Winsock while it is loaded.
void DropLayer() {
    StopProcessInfoCollection();
    const bool workersEnded = StopOverlappedManager();
    FreeOverlappedRecords();
    INT ignored = 0;
    if (!FreeLspCatalog(false, &ignored) || !workersEnded) KeepLibraryLoaded();
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

/// Tells the relay worker to end and closes the port that it waits on. GlobalLock may be held.
void StopRelayWorker() {
    RelayShutdown = true;
    const HANDLE port = RelayCompletionPort.Exchange(nullptr);
    if (port == nullptr) return;
    PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr);
    SafeCloseHandle(port);
}

/// Ends the overlapped manager. Its workers take GlobalLock until they have ended, so that is left meanwhile.
/// False when one of them is still there.
bool EndOverlappedManager(Locker& global) QX_NO_THREAD_SAFETY_ANALYSIS {
    CleaningUp = true;
    global.Leave();
    const bool ended = StopOverlappedManager();
    Sleep(kEndGraceMilliseconds);
    global.Enter();
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

}  // namespace

extern "C" int WSPAPI WSPStartup(WORD wVersionRequested, LPWSPDATA lpWSPData,
                                 LPWSAPROTOCOL_INFOW lpProtocolInfo, WSPUPCALLTABLE upcallTable,
                                 LPWSPPROC_TABLE lpProcTable) {
    Locker global(qx::GlobalLock);
    WaitForCleanUp(global);
    CaptureHostProcess();
    LspEntry* entry = nullptr;
    const int result = StartEntry(wVersionRequested, lpProtocolInfo, upcallTable, &entry);
    if (result != 0) {
        Trace("ERROR:WSPStartup failed!");
        if (StartupCount == 0) DropLayer();
        return result;
    }
    ++StartupCount;
    *lpWSPData = entry->LowerData;
    *lpProcTable = kLayerOperations;
    CompileProtocolPatterns();
    return 0;
}

int WSPAPI WSPCleanup(LPINT error) {
    if (Detaching) return 0;
    // Closing the relay listener takes SocketCreateCloseLock, which comes before GlobalLock. Without a
    // listener it is left alone: a thread that makes a socket holds it while Winsock, which calls us here,
    // waits to start a provider.
    const bool closesListener = RelayListenSocket != INVALID_SOCKET;
    Locker createClose(SocketCreateCloseLock, closesListener);
    Locker global(qx::GlobalLock);
    if (StartupCount == 0) return Fail(WSANOTINITIALISED, error);
    if (--StartupCount > 0) return 0;

    StopProcessInfoCollection();
    RelayShutdown = true;
    if (closesListener) SafeCloseSocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    createClose.Leave();
    RelayListenSocket = INVALID_SOCKET;  // one that came meanwhile ends with the catalog's sockets
    StopRelayWorker();
    ClearPendingResponses();
    const bool workersEnded = EndOverlappedManager(global);
    FreeOverlappedRecords();
    if (FreeLspCatalog(false, error) && workersEnded) {
        // Only now is it certain that no other thread still holds a message.
        TheBufferArena().Destroy();
    } else {
        KeepLibraryLoaded();
    }
    FreeProtocolPatterns();
    CleaningUp = false;
    return 0;
}

void ReleaseLayerAtDetach(bool unloading) {
    RelayShutdown = true;
    SafeCloseSocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    StopRelayWorker();
    {
        Locker global(qx::GlobalLock);
        if (StartupCount != 0) {
            // No thread of the library's own may outlive its code.
            if (unloading) StopProcessInfoCollection();
            if (PrivateHeap != nullptr) {
                EndOverlappedManager(global);
                INT ignored = 0;
                FreeLspCatalog(true, &ignored);
            }
            FreeProtocolPatterns();
            StartupCount = 0;
            CleaningUp = false;
        }
    }
    ClearPendingResponses();
    DestroyBufferArena();
}
