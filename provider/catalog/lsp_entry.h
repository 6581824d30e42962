// One layered entry of the Winsock catalog that belongs to this layer, with the lower provider below it and
// the sockets made through it.
//
// Entries are made by the first start-up and given up by the last clean-up; they lie in the private heap and
// stay valid for every thread that holds a CatalogHold or a reference on a context of theirs, also when a
// clean-up overtakes it. What is read from the catalog never changes; the lower provider's part is written by
// InitializeProvider under GlobalLock, before LowerStartupCount leaves 0.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <mswsock.h>
#include <windows.h>

#include "base/atomic.h"
#include "base/process_locks.h"

struct CatalogLifetime;
struct SocketContext;

/// Extension functions of a lower provider; each null until first needed. Threads that load the same one at
/// the same time store the same value.
struct LowerExtensions {
    Atomic<LPFN_ACCEPTEX> AcceptEx;
    Atomic<LPFN_TRANSMITFILE> TransmitFile;
    Atomic<LPFN_TRANSMITPACKETS> TransmitPackets;
    Atomic<LPFN_CONNECTEX> ConnectEx;
    Atomic<LPFN_DISCONNECTEX> DisconnectEx;
    Atomic<LPFN_WSARECVMSG> WSARecvMsg;
};

struct LspEntry {
    WSAPROTOCOL_INFOW NextProvider;   ///< the lower provider's entry, next below in the chain
    WSAPROTOCOL_INFOW LayerProvider;  ///< this layered entry
    WSPPROC_TABLE LowerProcedures;    ///< filled by the lower provider's start-up
    LowerExtensions Extensions;
    DWORD LayerBaseId;  ///< catalog id of the layer's own base entry
    WCHAR ProviderPath[MAX_PATH];
    WCHAR LibraryPath[MAX_PATH];
    INT ProviderPathLength;
    LPWSPSTARTUP LowerStartup;
    WSPDATA LowerData;
    HMODULE Module;  ///< the lower library; null while not loaded
    Atomic<LONG>
        LowerStartupCount;  ///< lower start-ups without their clean-up; above 0: the table may be used
    /// Guards the three below; nothing that takes a lock is called with it held.
    CriticalSection ListLock QX_ACQUIRED_AFTER(CatalogLock, qx::GlobalLock);
    SocketContext* FirstSocket QX_GUARDED_BY(ListLock);
    SocketContext* LastSocket QX_GUARDED_BY(ListLock);
    bool Closed QX_GUARDED_BY(ListLock);  ///< the catalog was freed: no context may join any more
    CatalogLifetime* Lifetime;            ///< what keeps this entry's memory and its lower library

    /// Whether the lower provider is itself a layer rather than a base provider.
    bool LowerIsLayered() const { return NextProvider.ProtocolChain.ChainLen != 1; }
};
