// The module behind scripted_provider.h: every operation asks the script what to do.
#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/callback.h"
#include "tests/support/scripted_provider.h"

namespace {

using Op = ProviderOperation;
using Record = ProviderCallRecord;
using Reply = ProviderReply;

ScriptedProvider TheProvider;

std::string Bytes(const void* data, std::size_t size) {
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
}

// Writes a value with a length that comes in as room and goes out as size.
void CopyOut(const std::string& value, void* out, LPINT length) {
    if (out == nullptr || length == nullptr) return;
    const std::size_t size = std::min(value.size(), static_cast<std::size_t>(*length));
    if (size > 0) std::memcpy(out, value.data(), size);
    *length = static_cast<int>(value.size());
}

Record OnSocket(Op operation, SOCKET s, DWORD value = 0) {
    Record record;
    record.operation = operation;
    record.socket = s;
    record.value = value;
    return record;
}

Record WithAddress(Record record, const sockaddr* address, int length) {
    record.address = Bytes(address, static_cast<std::size_t>(length));
    return record;
}

Record WithInfo(Record record, LPWSAPROTOCOL_INFOW info) {
    if (info != nullptr) record.info = *info;
    return record;
}

Record Transfer(Op operation, SOCKET s, DWORD flags, LPWSAOVERLAPPED overlapped,
                LPWSATHREADID threadId = nullptr) {
    Record record = OnSocket(operation, s, flags);
    record.overlapped = overlapped;
    record.hasThreadId = threadId != nullptr;
    return record;
}

// Turns 0 or an error into the result of an operation.
int Conclude(int error, LPINT lpErrno) {
    if (error == 0) return 0;
    *lpErrno = error;
    return SOCKET_ERROR;
}

int Simple(const Record& record, LPINT lpErrno) {
    return Conclude(TheProvider.Answer(record).error, lpErrno);
}

// An operation that gives back one value of the reply.
int GivesBack(const Record& record, std::string Reply::*field, void* out, LPINT length, LPINT lpErrno) {
    const Reply reply = TheProvider.Answer(record);
    if (reply.error == 0) CopyOut(reply.*field, out, length);
    return Conclude(reply.error, lpErrno);
}

// An operation that makes a socket.
SOCKET MakesSocket(const Record& record, LPINT lpErrno, sockaddr* address = nullptr, LPINT length = nullptr) {
    const Reply reply = TheProvider.Answer(record);
    if (Conclude(reply.error, lpErrno) != 0) return INVALID_SOCKET;
    CopyOut(reply.address, address, length);
    const SOCKET s = TheProvider.OpenSocket(lpErrno);
    if (s != INVALID_SOCKET && reply.made) reply.made(s);
    return s;
}

// The common part of receives: what is delivered at once, and what was agreed for later.
int Receive(Record record, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
            LPINT fromLength, LPINT lpErrno) {
    const std::vector<WSABUF> pieces(buffers, buffers + count);
    for (const WSABUF& piece : pieces)
        record.capacity += static_cast<DWORD>(piece.len);
    const Reply reply = TheProvider.Answer(record);
    const int error = TheProvider.Request(record, reply, pieces, received);
    if (error == 0) {
        *flags = reply.flags;
        CopyOut(reply.address, from, fromLength);
    }
    return Conclude(error, lpErrno);
}

int Deliver(Record record, LPWSABUF buffers, DWORD count, LPDWORD sent, LPINT lpErrno) {
    for (DWORD i = 0; i < count; ++i)
        record.data.append(buffers[i].buf, buffers[i].len);
    return Conclude(TheProvider.Request(record, TheProvider.Answer(record), {}, sent), lpErrno);
}

// Extension functions: a record and an outcome like the operations', their error in the thread's last
// error.

BOOL Extension(const Record& record) {
    const int error = TheProvider.Request(record, TheProvider.Answer(record), {}, nullptr);
    if (error != 0) WSASetLastError(error);
    return error == 0;
}

BOOL WINAPI AcceptExFunction(SOCKET listener, SOCKET accepting, PVOID, DWORD, DWORD, DWORD, LPDWORD received,
                             LPOVERLAPPED overlapped) {
    Record record = Transfer(Op::kAcceptEx, listener, 0, overlapped);
    record.otherSocket = accepting;
    *received = 0;
    return Extension(record);
}

BOOL WINAPI TransmitFileFunction(SOCKET s, HANDLE, DWORD, DWORD, LPOVERLAPPED overlapped,
                                 LPTRANSMIT_FILE_BUFFERS, DWORD flags) {
    return Extension(Transfer(Op::kTransmitFile, s, flags, overlapped));
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
    const std::pair<GUID, void*> functions[] = {
        {WSAID_ACCEPTEX, reinterpret_cast<void*>(AcceptExFunction)},
        {WSAID_TRANSMITFILE, reinterpret_cast<void*>(TransmitFileFunction)},
        {WSAID_GETACCEPTEXSOCKADDRS, reinterpret_cast<void*>(GetAcceptExSockaddrsFunction)},
    };
    for (const auto& [known, function] : functions) {
        if (id.size() == sizeof(known) && std::memcmp(&known, id.data(), sizeof(known)) == 0) return function;
    }
    return nullptr;
}

void FillSession(WSPPROC_TABLE& table) {
    table.lpWSPCleanup =
        Callback([](LPINT error) { return Simple(OnSocket(Op::kCleanup, INVALID_SOCKET), error); });
    table.lpWSPCancelBlockingCall = Callback(
        [](LPINT error) { return Simple(OnSocket(Op::kCancelBlockingCall, INVALID_SOCKET), error); });
    table.lpWSPAddressToString = Callback([](LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOW info,
                                             LPWSTR text, LPDWORD textLength, LPINT error) {
        const Record record = WithInfo(OnSocket(Op::kAddressToString, INVALID_SOCKET), info);
        const Reply reply = TheProvider.Answer(WithAddress(record, address, static_cast<int>(length)));
        if (reply.error != 0) return Conclude(reply.error, error);
        const std::string given = reply.data.empty() ? "scripted" : reply.data;
        const DWORD room = *textLength;
        *textLength = static_cast<DWORD>(given.size()) + 1;
        if (room < *textLength) return Conclude(WSAEFAULT, error);
        std::copy(given.begin(), given.end(), text);
        text[given.size()] = 0;
        return 0;
    });
    table.lpWSPStringToAddress = Callback(
        [](LPWSTR text, INT, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address, LPINT length, LPINT error) {
            Record record = WithInfo(OnSocket(Op::kStringToAddress, INVALID_SOCKET), info);
            for (; *text != 0; ++text)
                record.data += static_cast<char>(*text);
            return GivesBack(record, &Reply::address, address, length, error);
        });
}

void FillSockets(WSPPROC_TABLE& table) {
    table.lpWSPSocket =
        Callback([](int family, int type, int, LPWSAPROTOCOL_INFOW info, GROUP, DWORD flags, LPINT error) {
            Record record = WithInfo(OnSocket(Op::kSocket, INVALID_SOCKET, flags), info);
            record.family = family;
            record.type = type;
            return MakesSocket(record, error);
        });
    table.lpWSPAccept =
        Callback([](SOCKET s, sockaddr* address, LPINT length, LPCONDITIONPROC, DWORD_PTR, LPINT error) {
            return MakesSocket(OnSocket(Op::kAccept, s), error, address, length);
        });
    table.lpWSPJoinLeaf = Callback([](SOCKET s, const sockaddr* name, int length, LPWSABUF, LPWSABUF, LPQOS,
                                      LPQOS, DWORD flags, LPINT error) {
        return MakesSocket(WithAddress(OnSocket(Op::kJoinLeaf, s, flags), name, length), error);
    });
    table.lpWSPBind = Callback([](SOCKET s, const sockaddr* name, int length, LPINT error) {
        return Simple(WithAddress(OnSocket(Op::kBind, s), name, length), error);
    });
    table.lpWSPConnect = Callback(
        [](SOCKET s, const sockaddr* name, int length, LPWSABUF, LPWSABUF, LPQOS, LPQOS, LPINT error) {
            return Simple(WithAddress(OnSocket(Op::kConnect, s), name, length), error);
        });
    table.lpWSPListen = Callback([](SOCKET s, int backlog, LPINT error) {
        return Simple(OnSocket(Op::kListen, s, static_cast<DWORD>(backlog)), error);
    });
    table.lpWSPShutdown = Callback([](SOCKET s, int how, LPINT error) {
        return Simple(OnSocket(Op::kShutdown, s, static_cast<DWORD>(how)), error);
    });
    table.lpWSPDuplicateSocket =
        Callback([](SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT error) {
            const int result = Simple(OnSocket(Op::kDuplicateSocket, s, processId), error);
            if (result == 0) *info = TheProvider.StartupInfo();
            return result;
        });
    table.lpWSPCloseSocket = Callback([](SOCKET s, LPINT error) {
        const int result = Simple(OnSocket(Op::kCloseSocket, s), error);
        return result != 0 ? result : TheProvider.CloseSocket(s, error);
    });
}

void FillTransfers(WSPPROC_TABLE& table) {
    table.lpWSPRecv = Callback([](SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                                  LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                                  LPWSATHREADID threadId, LPINT error) {
        return Receive(Transfer(Op::kRecv, s, *flags, overlapped, threadId), buffers, count, received, flags,
                       nullptr, nullptr, error);
    });
    table.lpWSPRecvFrom =
        Callback([](SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
                    LPINT fromLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                    LPWSATHREADID threadId, LPINT error) {
            return Receive(Transfer(Op::kRecvFrom, s, *flags, overlapped, threadId), buffers, count, received,
                           flags, from, fromLength, error);
        });
    table.lpWSPSend = Callback([](SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                                  LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                                  LPWSATHREADID threadId, LPINT error) {
        return Deliver(Transfer(Op::kSend, s, flags, overlapped, threadId), buffers, count, sent, error);
    });
    table.lpWSPSendTo = Callback([](SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                                    const sockaddr* to, int toLength, LPWSAOVERLAPPED overlapped,
                                    LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID threadId, LPINT error) {
        const Record record = Transfer(Op::kSendTo, s, flags, overlapped, threadId);
        return Deliver(WithAddress(record, to, toLength), buffers, count, sent, error);
    });
    table.lpWSPSendDisconnect = Callback(
        [](SOCKET s, LPWSABUF, LPINT error) { return Simple(OnSocket(Op::kSendDisconnect, s), error); });
    table.lpWSPRecvDisconnect = Callback(
        [](SOCKET s, LPWSABUF, LPINT error) { return Simple(OnSocket(Op::kRecvDisconnect, s), error); });
    table.lpWSPIoctl = Callback([](SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out,
                                   DWORD outLength, LPDWORD returned, LPWSAOVERLAPPED overlapped,
                                   LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID threadId, LPINT error) {
        Record record = Transfer(Op::kIoctl, s, code, overlapped, threadId);
        record.data = Bytes(in, inLength);
        Reply reply = TheProvider.Answer(record);
        if (reply.error == 0 && reply.data.empty() && code == SIO_GET_EXTENSION_FUNCTION_POINTER) {
            void* function = ExtensionFunction(record.data);
            if (function == nullptr) reply.error = WSAEINVAL;
            reply.data = Bytes(&function, sizeof(function));
        }
        const WSABUF buffer{outLength, static_cast<char*>(out)};
        return Conclude(TheProvider.Request(record, reply, {buffer}, returned), error);
    });
    table.lpWSPGetOverlappedResult = Callback(
        [](SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL, LPDWORD flags, LPINT error) -> BOOL {
            Reply reply = TheProvider.Answer(OnSocket(Op::kGetOverlappedResult, s));
            const bool underWay = overlapped->Internal == WSS_OPERATION_IN_PROGRESS;
            if (reply.error == 0 && underWay) reply.error = WSA_IO_INCOMPLETE;
            if (Conclude(reply.error, error) != 0) return FALSE;
            *bytes = static_cast<DWORD>(overlapped->InternalHigh);
            *flags = reply.flags;
            return TRUE;
        });
}

void FillState(WSPPROC_TABLE& table) {
    table.lpWSPGetPeerName = Callback([](SOCKET s, sockaddr* name, LPINT length, LPINT error) {
        return GivesBack(OnSocket(Op::kGetPeerName, s), &Reply::address, name, length, error);
    });
    table.lpWSPGetSockName = Callback([](SOCKET s, sockaddr* name, LPINT length, LPINT error) {
        return GivesBack(OnSocket(Op::kGetSockName, s), &Reply::address, name, length, error);
    });
    table.lpWSPGetSockOpt = Callback([](SOCKET s, int, int option, char* value, LPINT length, LPINT error) {
        const Record record = OnSocket(Op::kGetSockOpt, s, static_cast<DWORD>(option));
        return GivesBack(record, &Reply::data, value, length, error);
    });
    table.lpWSPSetSockOpt =
        Callback([](SOCKET s, int, int option, const char* value, int length, LPINT error) {
            Record record = OnSocket(Op::kSetSockOpt, s, static_cast<DWORD>(option));
            record.data = Bytes(value, static_cast<std::size_t>(length));
            return Simple(record, error);
        });
    table.lpWSPGetQOSByName = Callback([](SOCKET s, LPWSABUF, LPQOS, LPINT error) -> BOOL {
        return Simple(OnSocket(Op::kGetQosByName, s), error) == 0;
    });
    table.lpWSPAsyncSelect =
        Callback([](SOCKET s, HWND window, unsigned int message, LONG events, LPINT error) {
            Record record = OnSocket(Op::kAsyncSelect, s, static_cast<DWORD>(events));
            record.window = window;
            record.message = message;
            return Simple(record, error);
        });
    table.lpWSPEventSelect = Callback([](SOCKET s, WSAEVENT, LONG events, LPINT error) {
        return Simple(OnSocket(Op::kEventSelect, s, static_cast<DWORD>(events)), error);
    });
    table.lpWSPEnumNetworkEvents = Callback([](SOCKET s, WSAEVENT, LPWSANETWORKEVENTS events, LPINT error) {
        *events = {};
        return Simple(OnSocket(Op::kEnumNetworkEvents, s), error);
    });
    table.lpWSPSelect =
        Callback([](int, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL, LPINT error) {
            Record record = OnSocket(Op::kSelect, INVALID_SOCKET);
            if (readSet != nullptr) {
                record.readSet.assign(readSet->fd_array, readSet->fd_array + readSet->fd_count);
            }
            const Reply reply = TheProvider.Answer(record);
            if (reply.error != 0) return Conclude(reply.error, error);
            for (fd_set* set : {readSet, writeSet, exceptSet}) {
                if (set != nullptr) FD_ZERO(set);
            }
            for (const SOCKET s : reply.writeSet)
                FD_SET(s, writeSet);
            return reply.result;
        });
}

WSPPROC_TABLE MakeOperations() {
    WSPPROC_TABLE table{};
    FillSession(table);
    FillSockets(table);
    FillTransfers(table);
    FillState(table);
    return table;
}

}  // namespace

extern "C" {

int WSPAPI WSPStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info, WSPUPCALLTABLE upcalls,
                      LPWSPPROC_TABLE table) {
    // Made once: the start-up of one entry leaves the operations alone that run for another.
    static const WSPPROC_TABLE operations = MakeOperations();
    const int error = TheProvider.Startup(version, data, info, upcalls);
    if (error != 0) return error;
    *table = operations;
    const int nullSlot = TheProvider.NullSlot();
    if (nullSlot >= 0) reinterpret_cast<void**>(table)[nullSlot] = nullptr;
    return 0;
}

ScriptedProvider* GetScriptedProvider() {
    return &TheProvider;
}

}  // extern "C"
