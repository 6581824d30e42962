// A base provider for tests that does what it is told: a loadable module whose operations record every call
// and answer from a script. It has no network behind it. Its sockets are handles that Winsock makes for it,
// so they can be associated with completion ports and receive completions like real ones.
//
// The test loads the module by path and steers it through ScriptedProvider; Winsock, or a layer above, loads
// the same module as a provider. Any thread may call. What is scripted stays until Reset or until the module
// is unloaded.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

/// The operations, in the order of the procedure table, then the extension functions.
enum class ProviderOperation {
    kAccept,
    kAddressToString,
    kAsyncSelect,
    kBind,
    kCancelBlockingCall,
    kCleanup,
    kCloseSocket,
    kConnect,
    kDuplicateSocket,
    kEnumNetworkEvents,
    kEventSelect,
    kGetOverlappedResult,
    kGetPeerName,
    kGetSockName,
    kGetSockOpt,
    kGetQosByName,
    kIoctl,
    kJoinLeaf,
    kListen,
    kRecv,
    kRecvDisconnect,
    kRecvFrom,
    kSelect,
    kSend,
    kSendDisconnect,
    kSendTo,
    kSetSockOpt,
    kShutdown,
    kSocket,
    kStringToAddress,
    kAcceptEx,
    kConnectEx,
    kDisconnectEx,
    kTransmitFile,
    kTransmitPackets,
    kWsaRecvMsg,
    kCount
};

/// One call as the provider saw it. Fields that an operation has no use for are zero.
struct ProviderCallRecord {
    ProviderOperation operation{};
    SOCKET socket = INVALID_SOCKET;
    SOCKET otherSocket = INVALID_SOCKET;  // AcceptEx: the accepting socket
    DWORD threadId = 0;
    int family = 0;    // socket
    int type = 0;      // socket
    int protocol = 0;  // socket; the option level
    DWORD value = 0;  // flags, control code, option name, backlog, how, event mask, process id: what there is
    DWORD capacity = 0;   // bytes of room for results
    std::string data;     // bytes to send, control input, option value
    std::string address;  // the sockaddr given
    LPWSAOVERLAPPED overlapped = nullptr;
    bool hasRoutine = false;
    bool hasThreadId = false;
    bool hasInfo = false;
    WSAPROTOCOL_INFOW info{};                          // socket, address conversions
    std::vector<SOCKET> readSet, writeSet, exceptSet;  // select
};

/// What an operation answers.
struct ProviderReply {
    int error = 0;         // not 0: the operation fails with it
    bool pending = false;  // an overlapped request stays under way until Complete
    std::string data;      // bytes received, option value, control output, the address or text given back
    std::string address;   // the sockaddr of accept, recvfrom
    DWORD flags = 0;       // flags of a receive
    int result = 0;        // select: the count
    std::vector<SOCKET> readSet, writeSet, exceptSet;       // select: what is ready
    DWORD exception = 0;                                    // not 0: the operation raises it
    DWORD transferred = 0xFFFFFFFF;                         // sends: fewer bytes than given
    std::function<void(const ProviderCallRecord&)> during;  // runs inside the operation, before it answers
};

class ScriptedProvider {
  public:
    /// Forgets script, calls and counts. Requests still under way are forgotten, sockets are not closed.
    virtual void Reset() = 0;

    /// What the next start-ups do: fail with `error`, leave one table slot null (-1: none), report a version.
    virtual void ScriptStartup(int error, int nullSlot = -1, WORD version = MAKEWORD(2, 2)) = 0;

    /// The answer to the next call of the operation that has no earlier one waiting.
    virtual void ReplyOnce(ProviderOperation operation, ProviderReply reply) = 0;

    /// The answer to all calls of the operation without a waiting one. Without any, the operation succeeds:
    /// sends take everything, receives deliver nothing, sockets are made and closed.
    virtual void ReplyAlways(ProviderOperation operation, ProviderReply reply) = 0;

    /// The calls so far, all or those of one operation.
    virtual std::vector<ProviderCallRecord> Calls() = 0;
    virtual std::vector<ProviderCallRecord> Calls(ProviderOperation operation) = 0;

    /// Waits, at most ten seconds of real time, until the operation was called `count` times in all.
    virtual bool WaitForCalls(ProviderOperation operation, std::size_t count) = 0;

    /// Ends the request that the provider was given with this record: `data` goes into a receive's buffers
    /// and its length is the count; for other requests `bytes` is. False when no such request is under way.
    virtual bool Complete(LPWSAOVERLAPPED overlapped, int error, const std::string& data,
                          DWORD bytes = 0) = 0;

    /// Start-ups that succeeded, clean-ups, sockets that are open.
    virtual int Startups() = 0;
    virtual int Cleanups() = 0;
    virtual int OpenSockets() = 0;

    /// What the last start-up was given.
    virtual WSPUPCALLTABLE Upcalls() = 0;
    virtual WSAPROTOCOL_INFOW StartupInfo() = 0;

  protected:
    ~ScriptedProvider() = default;
};

/// Keeps the module loaded and gives access to it.
class ScriptedProviderModule {
  public:
    ScriptedProviderModule();
    ~ScriptedProviderModule();
    ScriptedProviderModule(const ScriptedProviderModule&) = delete;
    ScriptedProviderModule& operator=(const ScriptedProviderModule&) = delete;

    ScriptedProvider& operator*() const { return *provider_; }
    ScriptedProvider* operator->() const { return provider_; }

    /// The module's path, for a catalog.
    static std::basic_string<WCHAR> Path();

  private:
    HMODULE module_;
    ScriptedProvider* provider_;
};
