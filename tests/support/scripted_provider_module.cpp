// The module behind scripted_provider.h. One lock guards script and record; it is never held while a reply's
// function, an upcall or a completion runs.
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <numeric>

#include "tests/support/scripted_provider.h"

namespace {

using Op = ProviderOperation;
using Record = ProviderCallRecord;
using Reply = ProviderReply;

std::string Bytes(const void* data, std::size_t size) {
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
}

std::string Gather(LPWSABUF buffers, DWORD count) {
    std::string all;
    for (DWORD i = 0; buffers != nullptr && i < count; ++i)
        all.append(buffers[i].buf, buffers[i].len);
    return all;
}

// Copies as much as fits; the number of bytes copied.
DWORD Scatter(const std::string& data, const std::vector<WSABUF>& buffers) {
    std::size_t done = 0;
    for (const WSABUF& buffer : buffers) {
        const std::size_t part = std::min<std::size_t>(buffer.len, data.size() - done);
        if (part > 0) std::memcpy(buffer.buf, data.data() + done, part);
        done += part;
    }
    return static_cast<DWORD>(done);
}

std::vector<WSABUF> Copy(LPWSABUF buffers, DWORD count) {
    return buffers == nullptr ? std::vector<WSABUF>() : std::vector<WSABUF>(buffers, buffers + count);
}

DWORD Room(const std::vector<WSABUF>& buffers) {
    return std::accumulate(buffers.begin(), buffers.end(), DWORD{0}, [](DWORD sum, const WSABUF& buffer) {
        return sum + static_cast<DWORD>(buffer.len);
    });
}

// Writes a value with a length that comes in as room and goes out as size.
template <class Length>
void GiveBack(const std::string& value, void* out, Length* length) {
    if (out == nullptr || length == nullptr) return;
    const std::size_t size = std::min<std::size_t>(value.size(), static_cast<std::size_t>(*length));
    if (size > 0) std::memcpy(out, value.data(), size);
    *length = static_cast<Length>(value.size());
}

struct Pending {
    SOCKET socket;
    std::vector<WSABUF> buffers;
};

class Provider final : public ScriptedProvider {
  public:
    void Reset() override {
        std::lock_guard<std::mutex> lock(mutex_);
        once_.clear();
        always_.clear();
        calls_.clear();
        pending_.clear();
        results_.clear();
        startError_ = 0;
        nullSlot_ = -1;
        version_ = MAKEWORD(2, 2);
        startups_ = cleanups_ = openSockets_ = 0;
    }

    void ScriptStartup(int error, int nullSlot, WORD version) override {
        std::lock_guard<std::mutex> lock(mutex_);
        startError_ = error;
        nullSlot_ = nullSlot;
        version_ = version;
    }

    void ReplyOnce(Op operation, Reply reply) override {
        std::lock_guard<std::mutex> lock(mutex_);
        once_[operation].push_back(std::move(reply));
    }

    void ReplyAlways(Op operation, Reply reply) override {
        std::lock_guard<std::mutex> lock(mutex_);
        always_[operation] = std::move(reply);
    }

    std::vector<Record> Calls() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    std::vector<Record> Calls(Op operation) override {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Record> some;
        std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(some),
                     [&](const Record& record) { return record.operation == operation; });
        return some;
    }

    bool WaitForCalls(Op operation, std::size_t count) override {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto called = [&] {
            return static_cast<std::size_t>(std::count_if(
                       calls_.begin(), calls_.end(),
                       [&](const Record& record) { return record.operation == operation; })) >= count;
        };
        return changed_.wait_for(lock, std::chrono::seconds(10), called);
    }

    bool Complete(LPWSAOVERLAPPED overlapped, int error, const std::string& data, DWORD bytes) override {
        Pending request{};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto found = pending_.find(overlapped);
            if (found == pending_.end()) return false;
            request = found->second;
            pending_.erase(found);
        }
        Finish(request, overlapped, error, data, bytes);
        return true;
    }

    int Startups() override { return Read(startups_); }
    int Cleanups() override { return Read(cleanups_); }
    int OpenSockets() override { return Read(openSockets_); }
    WSPUPCALLTABLE Upcalls() override { return Read(upcalls_); }
    WSAPROTOCOL_INFOW StartupInfo() override { return Read(info_); }

    /// Records the call, waits out its reply's function, and gives the reply.
    Reply Answer(Record record) {
        record.threadId = GetCurrentThreadId();
        Reply reply;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(record);
            changed_.notify_all();
            std::deque<Reply>& waiting = once_[record.operation];
            if (!waiting.empty()) {
                reply = std::move(waiting.front());
                waiting.pop_front();
            } else if (always_.count(record.operation) != 0) {
                reply = always_[record.operation];
            }
        }
        if (reply.during) reply.during(record);
        return reply;
    }

    /// The outcome of a request whose data, if any, is received into `buffers`: 0 or the error.
    int Request(const Record& record, const Reply& reply, LPWSABUF buffers, DWORD count, DWORD bytes) {
        if (reply.error != 0 || record.overlapped == nullptr) return reply.error;
        const Pending request{record.socket, Copy(buffers, count)};
        if (reply.pending) {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_[record.overlapped] = request;
            record.overlapped->Internal = WSS_OPERATION_IN_PROGRESS;
            return WSA_IO_PENDING;
        }
        Finish(request, record.overlapped, 0, reply.data, bytes);
        return 0;
    }

    /// The outcome of a finished request; false while it is under way.
    bool Result(LPWSAOVERLAPPED overlapped, int* error, DWORD* bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pending_.count(overlapped) != 0) return false;
        const auto found = results_.find(overlapped);
        *error = found == results_.end() ? 0 : found->second.error;
        *bytes = found == results_.end() ? 0 : found->second.bytes;
        return true;
    }

    SOCKET OpenSocket(LPINT error) {
        const WSAPROTOCOL_INFOW info = StartupInfo();
        const SOCKET s = Upcalls().lpWPUCreateSocketHandle(info.dwCatalogEntryId, 0, error);
        if (s == INVALID_SOCKET) return s;
        std::lock_guard<std::mutex> lock(mutex_);
        ++openSockets_;
        return s;
    }

    int CloseSocket(SOCKET s, LPINT error) {
        if (Upcalls().lpWPUCloseSocketHandle(s, error) != 0) return SOCKET_ERROR;
        std::lock_guard<std::mutex> lock(mutex_);
        --openSockets_;
        return 0;
    }

    int Startup(LPWSPDATA data, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls,
                LPWSPPROC_TABLE table);

    void CountCleanup() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++cleanups_;
    }

  private:
    struct Outcome {
        int error;
        DWORD bytes;
    };

    template <class Value>
    Value Read(const Value& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        return value;
    }

    void Finish(const Pending& request, LPWSAOVERLAPPED overlapped, int error, const std::string& data,
                DWORD bytes) {
        if (!data.empty()) bytes = Scatter(data, request.buffers);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            results_[overlapped] = {error, bytes};
        }
        int ignored = 0;
        WPUCompleteOverlappedRequest(request.socket, overlapped, static_cast<DWORD>(error), bytes, &ignored);
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<Op, std::deque<Reply>> once_;
    std::map<Op, Reply> always_;
    std::vector<Record> calls_;
    std::map<LPWSAOVERLAPPED, Pending> pending_;
    std::map<LPWSAOVERLAPPED, Outcome> results_;
    int startError_ = 0;
    int nullSlot_ = -1;
    WORD version_ = MAKEWORD(2, 2);
    int startups_ = 0;
    int cleanups_ = 0;
    int openSockets_ = 0;
    WSPUPCALLTABLE upcalls_{};
    WSAPROTOCOL_INFOW info_{};
};

Provider TheProvider;

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

// ---- Extension functions: a record and an outcome like the operations', their error in the thread's last
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

int Provider::Startup(LPWSPDATA data, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls,
                      LPWSPPROC_TABLE table) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (startError_ != 0) return startError_;
    upcalls_ = upcalls;
    info_ = *info;
    *data = {};
    data->wVersion = version_;
    data->wHighVersion = MAKEWORD(2, 2);
    const char description[] = "scripted";
    std::copy(std::begin(description), std::end(description), data->szDescription);
    *table = {Accept,
              AddressToString,
              AsyncSelect,
              Bind,
              CancelBlockingCall,
              Cleanup,
              ::CloseSocket,
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
    if (nullSlot_ >= 0) reinterpret_cast<void**>(table)[nullSlot_] = nullptr;
    ++startups_;
    return 0;
}

}  // namespace

extern "C" {

int WSPAPI WSPStartup(WORD, LPWSPDATA data, LPWSAPROTOCOL_INFOW info, WSPUPCALLTABLE upcalls,
                      LPWSPPROC_TABLE table) {
    return TheProvider.Startup(data, info, upcalls, table);
}

ScriptedProvider* GetScriptedProvider() {
    return &TheProvider;
}

}  // extern "C"
