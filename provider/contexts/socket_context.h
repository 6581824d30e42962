// The record behind every socket that the layer hands out: which lower socket it stands for, and what the
// interception knows about it.
//
// Winsock itself maps the application's handle to its context. A context is used with a reference held
// (FindAndRefSocketContext, ContextReference); lookups and reference changes happen under the lock of the
// handle's group, so the last dereference of a closing context can free it with nobody reaching it meanwhile.
// Its fields are read and written by application threads without a lock, each access being whole (Relaxed,
// AddressField); `Lock` guards OutstandingAsync, CompletionPort, SkipsPackets and the change to Closing.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "base/atomic.h"
#include "base/locker.h"
#include "provider/contexts/address_field.h"
#include "provider/process_state.h"

struct LspEntry;
struct CatalogLifetime;
struct OverlappedOperation;

/// Bits of SocketContext::ProtocolProbed.
constexpr DWORD kProbedReceived = 1;
constexpr DWORD kProbedSent = 2;
constexpr DWORD kProbedBoth = 3;

/// SocketContext::Protocol when classification was given up.
constexpr DWORD kProtocolGivenUp = 0x80000000;

struct SocketContext {
    Atomic<SOCKET> ProviderSocket;  ///< the lower socket; INVALID_SOCKET once closed
    Atomic<SOCKET> LayeredSocket;   ///< the application's handle; INVALID_SOCKET once given back
    DWORD OutstandingAsync = 0;     ///< overlapped operations under way; guarded by Lock
    Atomic<BOOL> Closing;           ///< the application closed the socket; the last user frees the context
    /// Threads using the context; raised under the lock of the handle's group, or by one that has a
    /// reference.
    Atomic<LONG> RefCount;
    Atomic<LONG>
        LowerSocketUses;  ///< overlapped requests being handed to the lower provider; see LowerSocketUse
    Atomic<std::uint64_t> BytesSent;
    Atomic<std::uint64_t> BytesRecv;
    HANDLE CompletionPort = nullptr;  ///< the layer's, once the lower socket belongs to it; guarded by Lock
    bool SkipsPackets = false;  ///< requests that succeed inside the lower call queue none; guarded by Lock
    Atomic<int> LastError;      ///< of the last completed overlapped operation
    /// Ends of overlapped requests that are told in turn, since the data of one is being looked at, and the
    /// next of the sockets that have such; see look_threads.h. Guarded by OverlappedLock.
    struct {
        OverlappedOperation* First = nullptr;
        OverlappedOperation* Last = nullptr;
        SocketContext* NextReady = nullptr;
    } WaitingEnds;
    Atomic<BOOL> EndsWait;  ///< there are such ends, or one is just being told; written under OverlappedLock
    Atomic<BOOL> WaitsEnd;  ///< the last clean-up lets nobody wait for the analyzer any more
    /// As given to WSPAsyncSelect. Both are written, and read to be used together, under GlobalLock.
    Atomic<HWND> AsyncWindow;
    Atomic<UINT> AsyncMessage;
    Atomic<LONG> Arrivals;  ///< threads that may be bringing a socket out of this one; see SocketArrival
    Atomic<BOOL> Dead;      ///< about to be freed: the lock can't be taken any more
    CriticalSection Lock QX_ACQUIRED_AFTER(qx::GlobalLock) QX_ACQUIRED_BEFORE(OverlappedLock);
    LspEntry* Provider = nullptr;
    struct {
        SocketContext* Next = nullptr;
        SocketContext* Previous = nullptr;
    } Link;                           ///< membership in the entry's list; guarded by its ListLock
    AddressField RelayAddress;        ///< where a split or redirected socket really goes; written by connect
    AddressField DestinationAddress;  ///< given to connect or sendto, or reported by recvfrom
    Atomic<int> DestinationAddressLength;
    Atomic<BOOL> Split;  ///< connected elsewhere than the application asked
    /// This socket's connection to the analyzer, or INVALID_SOCKET. Who exchanges it out closes it: a split
    /// hands it over to the relay connection.
    Atomic<SOCKET> SpySocket;
    Atomic<DWORD> Protocol;         ///< id found by classification; 0: not yet; kProtocolGivenUp
    Atomic<DWORD> ProtocolProbed;   ///< kProbed... bits
    AddressField LocalAddress;      ///< the socket's local name once connected
    Atomic<BOOL> Blocked;           ///< sends and receives fail with BlockError
    Atomic<BOOL> Own;               ///< exempt from interception for as long as it lives
    Atomic<BOOL> LocalDestination;  ///< exempt for as long as it is connected where nobody is asked about
    bool OwnedByLayer = false;      ///< made by the layer for itself: the application has no such socket
    Atomic<BOOL> ReportTraffic;
    Atomic<BOOL> InspectData;
    Atomic<BOOL> CountTraffic;
    Atomic<BOOL> RelayWanted;    ///< the connection is to be split
    Atomic<DWORD> RelayIndex;    ///< of the relay connection; 0: none
    Atomic<BOOL> RelayAccepted;  ///< the relay has its end of that connection
    Atomic<BOOL> AnalyzerServes;
    /// This and the next four: as the application made the socket; what it left open, or took from a catalog
    /// entry, is the chosen entry's.
    int AddressFamily = 0;
    int SocketType = 0;  ///< 6 stands for any type from 6 on
    int SocketProtocol = 0;
    GROUP SocketGroup = 0;
    DWORD SocketFlags = 0;
    Atomic<int> BlockError;  ///< while Blocked; 0 means WSAECONNABORTED

    /// What a refused send or receive ends with.
    int RefusalError() const {
        const int blockError = BlockError;
        return blockError != 0 ? blockError : WSAECONNABORTED;
    }

    /// Where the socket is connected to, or its datagrams go to or come from.
    void StoreDestination(const SOCKADDR_STORAGE& name, int length) {
        DestinationAddressLength = length;
        DestinationAddress.Store(&name, length);
    }

    /// Set when a clean-up overtook threads that use the context: what the last of them then releases.
    /// Guarded by GlobalLock.
    CatalogLifetime* Abandoned = nullptr;
};

/// Makes a context for a lower socket of `provider`, in the heap that holds the entry. With `inheritFrom` the
/// new socket gets its window and message, for which GlobalLock is taken. With `insert` it joins the
/// provider's list at once. Null with
/// `*error` WSAENOBUFS when there is no memory (or the lock can't be made), WSANOTINITIALISED when the
/// catalog is gone.
SocketContext* CreateSocketContext(LspEntry* provider, SOCKET providerSocket,
                                   const SocketContext* inheritFrom, bool insert, LPINT error);

/// Marks the context dead and gives its memory back. Not in any list; null is ignored.
void FreeSocketContext(SocketContext* context);

/// Appends the context to its provider's list and signals ContextAddedEvent. False when the catalog was
/// freed.
bool InsertSocketContext(LspEntry* provider, SocketContext* context);

/// Takes the context off its provider's list.
void RemoveSocketContext(LspEntry* provider, SocketContext* context);

/// The context of an application's handle with one more reference, or null with `*error` WSAENOTSOCK; so also
/// for a handle of the layer's own outside a LayerCall, which can only be a closed one of the application's
/// whose value was given out again. Takes the handle's group lock.
SocketContext* FindAndRefSocketContext(SOCKET s, LPINT error);

/// Drops a reference. The last one of a closing context without outstanding operations gives the
/// application's handle back and frees the context; a spy socket that it still has and that no relay uses is
/// closed. May take GlobalLock and must be called without any lock that comes after it. `*error` is written
/// only by a failing upcall; the thread's last error is kept. True when the handle was given back
/// successfully or is still in use.
bool DerefSocketContext(SocketContext* context, LPINT error);

/// Takes the spy socket away from a context that ends: the socket for the caller to close with
/// SafeCloseSocket after leaving every lock, or INVALID_SOCKET when there is none.
SOCKET DetachSpySocket(SocketContext* context);

/// Enters the context's lock. False, without waiting, when there is no context or it is dead.
bool AcquireSocketLock(SocketContext* context) QX_NO_THREAD_SAFETY_ANALYSIS;
void ReleaseSocketLock(SocketContext* context) QX_NO_THREAD_SAFETY_ANALYSIS;

/// The context whose lower socket this is, or null; with null for `provider` all entries are searched. Takes
/// GlobalLock (and CatalogLock); no reference is taken.
SocketContext* FindSocketContextByProviderSocket(LspEntry* provider, SOCKET providerSocket);

/// Marks a socket that the layer made for itself; with a relay index other than 0 also stores it. Takes
/// GlobalLock.
void MarkSocketAsOwn(SOCKET s, DWORD relayIndex);

/// Whether nothing of this socket (or of this process) is to be intercepted. True without a context.
bool IsSocketExempt(const SocketContext* context);

/// Marks, for a scope, that the lower provider may give the thread a socket out of another one, which is
/// referenced: from before the lower call until the new socket's context has joined its list.
class SocketArrival {
  public:
    explicit SocketArrival(SocketContext* parent) : parent_(parent) { parent_->Arrivals.Increment(); }
    ~SocketArrival() { parent_->Arrivals.Decrement(); }
    SocketArrival(const SocketArrival&) = delete;
    SocketArrival& operator=(const SocketArrival&) = delete;

  private:
    SocketContext* const parent_;
};

/// Whether any thread may be bringing a socket that has its parent's window. When none is, a lower socket
/// that has no context by the next lookup never will. Takes GlobalLock and CatalogLock.
bool IsSocketArriving();

/// A text of its own that needs no memory from anywhere.
class ContextText {
  public:
    static constexpr std::size_t kSize = 320;

    const char* c_str() const { return text_; }

  private:
    friend ContextText DescribeContext(const SocketContext* context);
    char text_[kSize];
};

/// The text of the "#Details" part of messages; "Context is empty" without a context. Keeps the last error,
/// which is often an argument of the same message. Winsock writes the address, through the layer: GlobalLock
/// may be taken, so no lock that comes after it may be held.
ContextText DescribeContext(const SocketContext* context);

/// A referenced context for a scope; converts to false when the handle has none.
class ContextReference {
  public:
    ContextReference(SOCKET s, LPINT error) : context_(FindAndRefSocketContext(s, error)) {}
    ~ContextReference() { Release(); }
    ContextReference(const ContextReference&) = delete;
    ContextReference& operator=(const ContextReference&) = delete;

    explicit operator bool() const { return context_ != nullptr; }
    SocketContext* operator->() const { return context_; }
    SocketContext* Get() const { return context_; }

    /// Drops the reference before the scope ends.
    void Release() {
        INT ignored = 0;
        if (context_ != nullptr) DerefSocketContext(context_, &ignored);
        context_ = nullptr;
    }

  private:
    SocketContext* context_;
};
