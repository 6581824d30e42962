// What a script for the scripted provider is made of: its operations, the record of a call and the answer.
#pragma once

#include <winsock2.h>

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
    kTransmitFile
};

/// One call as the provider saw it. Fields that an operation has no use for are zero.
struct ProviderCallRecord {
    ProviderOperation operation{};
    SOCKET socket = INVALID_SOCKET;
    SOCKET otherSocket = INVALID_SOCKET;  // AcceptEx: the accepting socket
    int family = 0;                       // socket
    int type = 0;                         // socket
    DWORD value = 0;  // flags, control code, option name, backlog, how, event mask, process id: what there is
    DWORD capacity = 0;   // receives: bytes of room
    std::string data;     // bytes to send, control input, option value, text to convert
    std::string address;  // the sockaddr given
    LPWSAOVERLAPPED overlapped = nullptr;
    bool hasThreadId = false;
    HWND window = nullptr;        // asynchronous select
    UINT message = 0;             // the same
    WSAPROTOCOL_INFOW info{};     // socket, address conversions
    std::vector<SOCKET> readSet;  // select
};

/// What an operation answers.
struct ProviderReply {
    int error = 0;                 // not 0: the operation fails with it
    bool pending = false;          // an overlapped request stays under way until Complete
    std::string data;              // bytes received, option value, control output, the text given back
    std::string address;           // the sockaddr given back
    DWORD flags = 0;               // flags of a receive
    int result = 0;                // select: the count
    std::vector<SOCKET> writeSet;  // select: what is ready
    std::function<void(const ProviderCallRecord&)> during;  // runs inside the operation, before it answers
    std::function<void(SOCKET)> made;  // runs inside an operation that makes a socket, with that socket
};
