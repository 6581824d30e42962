// The module behind scripted_provider.h: every operation asks the script what to do.
#include <algorithm>
#include <array>
#include <cstring>

#include "tests/support/provider_script.h"

namespace {

using Op = ProviderOperation;
using Record = ProviderCallRecord;
using Reply = ProviderReply;

ProviderScript TheProvider;

Record OnSocket(Op operation, SOCKET s, DWORD value = 0) {
    Record record;
    record.operation = operation;
    record.socket = s;
    record.value = value;
    return record;
}

Record Transfer(Op operation, SOCKET s, DWORD flags, LPWSAOVERLAPPED overlapped,
                LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID threadId) {
    Record record = OnSocket(operation, s, flags);
    record.overlapped = overlapped;
    record.hasRoutine = routine != nullptr;
    record.hasThreadId = threadId != nullptr;
    return record;
}

// Turns 0 or an error into the result of an operation; an exception that is scripted is raised here.
int Conclude(const Reply& reply, int error, LPINT lpErrno) {
    if (reply.exception != 0) RaiseException(reply.exception, 0, 0, nullptr);
    if (error == 0) return 0;
    *lpErrno = error;
    return SOCKET_ERROR;
}

int Simple(const Record& record, LPINT lpErrno) {
    const Reply reply = TheProvider.Answer(record);
    return Conclude(reply, reply.error, lpErrno);
}

// An operation that makes a socket.
SOCKET MakesSocket(const Record& record, struct sockaddr* address, LPINT addressLength, LPINT lpErrno) {
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply, reply.error, lpErrno) != 0) return INVALID_SOCKET;
    GiveBack(reply.address, address, addressLength);
    return TheProvider.OpenSocket(lpErrno);
}

SOCKET WSPAPI Accept(SOCKET s, sockaddr* address, LPINT length, LPCONDITIONPROC, DWORD_PTR, LPINT lpErrno) {
    return MakesSocket(OnSocket(Op::kAccept, s), address, length, lpErrno);
}

INT WSPAPI AddressToString(LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOW info, LPWSTR text,
                           LPDWORD textLength, LPINT lpErrno) {
    Record record = OnSocket(Op::kAddressToString, INVALID_SOCKET);
    record.address = Bytes(address, length);
    record.capacity = *textLength;
    record.hasInfo = info != nullptr;
    if (info != nullptr) record.info = *info;
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    const std::string given = reply.data.empty() ? "scripted" : reply.data;
    const DWORD room = *textLength;
    *textLength = static_cast<DWORD>(given.size()) + 1;
    if (room < *textLength) {
        *lpErrno = WSAEFAULT;
        return SOCKET_ERROR;
    }
    std::copy(given.begin(), given.end(), text);
    text[given.size()] = 0;
    return 0;
}

INT WSPAPI StringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                           LPINT length, LPINT lpErrno) {
    Record record = OnSocket(Op::kStringToAddress, INVALID_SOCKET);
    for (; *text != 0; ++text)
        record.data += static_cast<char>(*text);
    record.family = family;
    record.capacity = static_cast<DWORD>(*length);
    record.hasInfo = info != nullptr;
    if (info != nullptr) record.info = *info;
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    GiveBack(reply.address, address, length);
    return 0;
}

int WSPAPI AsyncSelect(SOCKET s, HWND, unsigned int, LONG events, LPINT lpErrno) {
    return Simple(OnSocket(Op::kAsyncSelect, s, static_cast<DWORD>(events)), lpErrno);
}

int WSPAPI Bind(SOCKET s, const sockaddr* name, int length, LPINT lpErrno) {
    Record record = OnSocket(Op::kBind, s);
    record.address = Bytes(name, static_cast<std::size_t>(length));
    return Simple(record, lpErrno);
}

int WSPAPI CancelBlockingCall(LPINT lpErrno) {
    return Simple(OnSocket(Op::kCancelBlockingCall, INVALID_SOCKET), lpErrno);
}

int WSPAPI Cleanup(LPINT lpErrno) {
    TheProvider.CountCleanup();
    return Simple(OnSocket(Op::kCleanup, INVALID_SOCKET), lpErrno);
}

int WSPAPI CloseSocket(SOCKET s, LPINT lpErrno) {
    const int result = Simple(OnSocket(Op::kCloseSocket, s), lpErrno);
    return result != 0 ? result : TheProvider.CloseSocket(s, lpErrno);
}

int WSPAPI Connect(SOCKET s, const sockaddr* name, int length, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                   LPINT lpErrno) {
    Record record = OnSocket(Op::kConnect, s);
    record.address = Bytes(name, static_cast<std::size_t>(length));
    return Simple(record, lpErrno);
}

int WSPAPI DuplicateSocket(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT lpErrno) {
    const int result = Simple(OnSocket(Op::kDuplicateSocket, s, processId), lpErrno);
    if (result == 0) *info = TheProvider.StartupInfo();
    return result;
}

int WSPAPI EnumNetworkEvents(SOCKET s, WSAEVENT, LPWSANETWORKEVENTS events, LPINT lpErrno) {
    const Reply reply = TheProvider.Answer(OnSocket(Op::kEnumNetworkEvents, s));
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    *events = {};
    events->lNetworkEvents = static_cast<LONG>(reply.flags);
    return 0;
}

int WSPAPI EventSelect(SOCKET s, WSAEVENT, LONG events, LPINT lpErrno) {
    return Simple(OnSocket(Op::kEventSelect, s, static_cast<DWORD>(events)), lpErrno);
}

BOOL WSPAPI GetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL, LPDWORD flags,
                                LPINT lpErrno) {
    const Reply reply =
        TheProvider.Answer(Transfer(Op::kGetOverlappedResult, s, 0, overlapped, nullptr, nullptr));
    if (Conclude(reply, reply.error, lpErrno) != 0) return FALSE;
    int error = 0;
    if (!TheProvider.Result(overlapped, &error, bytes)) error = WSA_IO_INCOMPLETE;
    *flags = reply.flags;
    if (error == 0) return TRUE;
    *lpErrno = error;
    return FALSE;
}

int Name(Op operation, SOCKET s, sockaddr* name, LPINT length, LPINT lpErrno) {
    const Reply reply = TheProvider.Answer(OnSocket(operation, s));
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    GiveBack(reply.address, name, length);
    return 0;
}

int WSPAPI GetPeerName(SOCKET s, sockaddr* name, LPINT length, LPINT lpErrno) {
    return Name(Op::kGetPeerName, s, name, length, lpErrno);
}

int WSPAPI GetSockName(SOCKET s, sockaddr* name, LPINT length, LPINT lpErrno) {
    return Name(Op::kGetSockName, s, name, length, lpErrno);
}

int WSPAPI GetSockOpt(SOCKET s, int level, int option, char* value, LPINT length, LPINT lpErrno) {
    Record record = OnSocket(Op::kGetSockOpt, s, static_cast<DWORD>(option));
    record.protocol = level;
    record.capacity = length != nullptr ? static_cast<DWORD>(*length) : 0;
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    GiveBack(reply.data, value, length);
    return 0;
}

BOOL WSPAPI GetQosByName(SOCKET s, LPWSABUF, LPQOS, LPINT lpErrno) {
    return Simple(OnSocket(Op::kGetQosByName, s), lpErrno) == 0;
}

SOCKET WSPAPI JoinLeaf(SOCKET s, const sockaddr* name, int length, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                       DWORD flags, LPINT lpErrno) {
    Record record = OnSocket(Op::kJoinLeaf, s, flags);
    record.address = Bytes(name, static_cast<std::size_t>(length));
    return MakesSocket(record, nullptr, nullptr, lpErrno);
}

int WSPAPI Listen(SOCKET s, int backlog, LPINT lpErrno) {
    return Simple(OnSocket(Op::kListen, s, static_cast<DWORD>(backlog)), lpErrno);
}

// The common part of receives: what is delivered at once, and what was agreed for later.
int Receive(Record record, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
            LPINT fromLength, LPINT lpErrno) {
    record.capacity = Room(Copy(buffers, count));
    const Reply reply = TheProvider.Answer(record);
    const int error = TheProvider.Request(record, reply, buffers, count, 0);
    if (error == 0) {
        const DWORD bytes = Scatter(reply.data, Copy(buffers, count));
        if (received != nullptr) *received = bytes;
        if (flags != nullptr) *flags = reply.flags;
        GiveBack(reply.address, from, fromLength);
    }
    return Conclude(reply, error, lpErrno);
}

int WSPAPI Recv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                LPWSATHREADID threadId, LPINT lpErrno) {
    return Receive(Transfer(Op::kRecv, s, flags != nullptr ? *flags : 0, overlapped, routine, threadId),
                   buffers, count, received, flags, nullptr, nullptr, lpErrno);
}

int WSPAPI RecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
                    LPINT fromLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                    LPWSATHREADID threadId, LPINT lpErrno) {
    return Receive(Transfer(Op::kRecvFrom, s, flags != nullptr ? *flags : 0, overlapped, routine, threadId),
                   buffers, count, received, flags, from, fromLength, lpErrno);
}

int WSPAPI RecvDisconnect(SOCKET s, LPWSABUF, LPINT lpErrno) {
    return Simple(OnSocket(Op::kRecvDisconnect, s), lpErrno);
}

int Deliver(Record record, LPWSABUF buffers, DWORD count, LPDWORD sent, LPINT lpErrno) {
    record.data = Gather(buffers, count);
    const Reply reply = TheProvider.Answer(record);
    const DWORD bytes = std::min(static_cast<DWORD>(record.data.size()), reply.transferred);
    const int error = TheProvider.Request(record, reply, nullptr, 0, bytes);
    if (error == 0 && sent != nullptr) *sent = bytes;
    return Conclude(reply, error, lpErrno);
}

int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                LPWSATHREADID threadId, LPINT lpErrno) {
    return Deliver(Transfer(Op::kSend, s, flags, overlapped, routine, threadId), buffers, count, sent,
                   lpErrno);
}

int WSPAPI SendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags, const sockaddr* to,
                  int toLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                  LPWSATHREADID threadId, LPINT lpErrno) {
    Record record = Transfer(Op::kSendTo, s, flags, overlapped, routine, threadId);
    record.address = Bytes(to, static_cast<std::size_t>(toLength));
    return Deliver(record, buffers, count, sent, lpErrno);
}

int WSPAPI SendDisconnect(SOCKET s, LPWSABUF, LPINT lpErrno) {
    return Simple(OnSocket(Op::kSendDisconnect, s), lpErrno);
}

std::vector<SOCKET> Members(const fd_set* set) {
    return set == nullptr ? std::vector<SOCKET>()
                          : std::vector<SOCKET>(set->fd_array, set->fd_array + set->fd_count);
}

void SetMembers(const std::vector<SOCKET>& members, fd_set* set) {
    if (set == nullptr) return;
    FD_ZERO(set);
    for (const SOCKET s : members)
        FD_SET(s, set);
}

int WSPAPI Select(int, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL, LPINT lpErrno) {
    Record record = OnSocket(Op::kSelect, INVALID_SOCKET);
    record.readSet = Members(readSet);
    record.writeSet = Members(writeSet);
    record.exceptSet = Members(exceptSet);
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply, reply.error, lpErrno) != 0) return SOCKET_ERROR;
    SetMembers(reply.readSet, readSet);
    SetMembers(reply.writeSet, writeSet);
    SetMembers(reply.exceptSet, exceptSet);
    return reply.result;
}

int WSPAPI SetSockOpt(SOCKET s, int level, int option, const char* value, int length, LPINT lpErrno) {
    Record record = OnSocket(Op::kSetSockOpt, s, static_cast<DWORD>(option));
    record.protocol = level;
    record.data = Bytes(value, static_cast<std::size_t>(length));
    return Simple(record, lpErrno);
}

int WSPAPI Shutdown(SOCKET s, int how, LPINT lpErrno) {
    return Simple(OnSocket(Op::kShutdown, s, static_cast<DWORD>(how)), lpErrno);
}

SOCKET WSPAPI Socket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP, DWORD flags,
                     LPINT lpErrno) {
    Record record = OnSocket(Op::kSocket, INVALID_SOCKET, flags);
    record.family = family;
    record.type = type;
    record.protocol = protocol;
    record.hasInfo = info != nullptr;
    if (info != nullptr) record.info = *info;
    return MakesSocket(record, nullptr, nullptr, lpErrno);
}

// Extension functions: a record and an outcome like the operations', their error in the thread's last
// error.

BOOL Extension(const Record& record, DWORD bytes, LPDWORD transferred) {
    const Reply reply = TheProvider.Answer(record);
    const int error = TheProvider.Request(record, reply, nullptr, 0, bytes);
    int code = 0;
    if (Conclude(reply, error, &code) == 0) {
        if (transferred != nullptr) *transferred = bytes;
        return TRUE;
    }
    WSASetLastError(code);
    return FALSE;
}

BOOL WINAPI AcceptExFunction(SOCKET listener, SOCKET accepting, PVOID, DWORD room, DWORD, DWORD,
                             LPDWORD received, LPOVERLAPPED overlapped) {
    Record record = Transfer(Op::kAcceptEx, listener, 0, overlapped, nullptr, nullptr);
    record.otherSocket = accepting;
    record.capacity = room;
    return Extension(record, 0, received);
}

BOOL WINAPI ConnectExFunction(SOCKET s, const sockaddr* name, int length, PVOID data, DWORD dataLength,
                              LPDWORD sent, LPOVERLAPPED overlapped) {
    Record record = Transfer(Op::kConnectEx, s, 0, overlapped, nullptr, nullptr);
    record.address = Bytes(name, static_cast<std::size_t>(length));
    record.data = Bytes(data, dataLength);
    return Extension(record, dataLength, sent);
}

BOOL WINAPI DisconnectExFunction(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD) {
    return Extension(Transfer(Op::kDisconnectEx, s, flags, overlapped, nullptr, nullptr), 0, nullptr);
}

BOOL WINAPI TransmitFileFunction(SOCKET s, HANDLE, DWORD bytes, DWORD, LPOVERLAPPED overlapped,
                                 LPTRANSMIT_FILE_BUFFERS, DWORD flags) {
    return Extension(Transfer(Op::kTransmitFile, s, flags, overlapped, nullptr, nullptr), bytes, nullptr);
}

BOOL WINAPI TransmitPacketsFunction(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT packets, DWORD count, DWORD,
                                    LPOVERLAPPED overlapped, DWORD flags) {
    DWORD bytes = 0;
    for (DWORD i = 0; i < count; ++i)
        bytes += packets[i].cLength;
    return Extension(Transfer(Op::kTransmitPackets, s, flags, overlapped, nullptr, nullptr), bytes, nullptr);
}

INT WINAPI WsaRecvMsgFunction(SOCKET s, LPWSAMSG message, LPDWORD received, LPWSAOVERLAPPED overlapped,
                              LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    int error = 0;
    const int result = Receive(Transfer(Op::kWsaRecvMsg, s, message->dwFlags, overlapped, routine, nullptr),
                               message->lpBuffers, message->dwBufferCount, received, &message->dwFlags,
                               message->name, &message->namelen, &error);
    if (result != 0) WSASetLastError(error);
    return result;
}

VOID WINAPI GetAcceptExSockaddrsFunction(PVOID output, DWORD receiveLength, DWORD localLength, DWORD,
                                         sockaddr** local, LPINT localSize, sockaddr** remote,
                                         LPINT remoteSize) {
    char* addresses = static_cast<char*>(output) + receiveLength;
    *local = reinterpret_cast<sockaddr*>(addresses);
    *remote = reinterpret_cast<sockaddr*>(addresses + localLength);
    *localSize = *remoteSize = sizeof(sockaddr_in);
}

void* ExtensionFunction(const std::string& id) {
    const std::array<std::pair<GUID, void*>, 7> functions = {{
        {WSAID_ACCEPTEX, reinterpret_cast<void*>(AcceptExFunction)},
        {WSAID_CONNECTEX, reinterpret_cast<void*>(ConnectExFunction)},
        {WSAID_DISCONNECTEX, reinterpret_cast<void*>(DisconnectExFunction)},
        {WSAID_TRANSMITFILE, reinterpret_cast<void*>(TransmitFileFunction)},
        {WSAID_TRANSMITPACKETS, reinterpret_cast<void*>(TransmitPacketsFunction)},
        {WSAID_WSARECVMSG, reinterpret_cast<void*>(WsaRecvMsgFunction)},
        {WSAID_GETACCEPTEXSOCKADDRS, reinterpret_cast<void*>(GetAcceptExSockaddrsFunction)},
    }};
    for (const auto& [known, function] : functions) {
        if (id.size() == sizeof known && std::memcmp(&known, id.data(), sizeof known) == 0) return function;
    }
    return nullptr;
}

int WSPAPI Ioctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                 LPDWORD returned, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                 LPWSATHREADID threadId, LPINT lpErrno) {
    Record record = Transfer(Op::kIoctl, s, code, overlapped, routine, threadId);
    record.data = Bytes(in, inLength);
    record.capacity = outLength;
    Reply reply = TheProvider.Answer(record);
    if (reply.error == 0 && reply.data.empty() && code == SIO_GET_EXTENSION_FUNCTION_POINTER) {
        void* function = ExtensionFunction(record.data);
        if (function == nullptr) reply.error = WSAEINVAL;
        reply.data = Bytes(&function, sizeof function);
    }
    WSABUF buffer{outLength, static_cast<char*>(out)};
    const int error = TheProvider.Request(record, reply, &buffer, 1, 0);
    if (error == 0 && overlapped == nullptr) {
        const DWORD bytes = Scatter(reply.data, Copy(&buffer, 1));
        if (returned != nullptr) *returned = bytes;
    }
    return Conclude(reply, error, lpErrno);
}

void FillTable(LPWSPPROC_TABLE table) {
    *table = {Accept,
              AddressToString,
              AsyncSelect,
              Bind,
              CancelBlockingCall,
              Cleanup,
              CloseSocket,
              Connect,
              DuplicateSocket,
              EnumNetworkEvents,
              EventSelect,
              GetOverlappedResult,
              GetPeerName,
              GetSockName,
              GetSockOpt,
              GetQosByName,
              Ioctl,
              JoinLeaf,
              Listen,
              Recv,
              RecvDisconnect,
              RecvFrom,
              Select,
              Send,
              SendDisconnect,
              SendTo,
              SetSockOpt,
              Shutdown,
              Socket,
              StringToAddress};
}

}  // namespace

extern "C" {

int WSPAPI WSPStartup(WORD, LPWSPDATA data, LPWSAPROTOCOL_INFOW info, WSPUPCALLTABLE upcalls,
                      LPWSPPROC_TABLE table) {
    const int error = TheProvider.Startup(data, info, upcalls);
    if (error != 0) return error;
    FillTable(table);
    const int nullSlot = TheProvider.NullSlot();
    if (nullSlot >= 0) reinterpret_cast<void**>(table)[nullSlot] = nullptr;
    return 0;
}

ScriptedProvider* GetScriptedProvider() {
    return &TheProvider;
}

}  // extern "C"
