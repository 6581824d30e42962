// See lower_requests.h.
#include "tests/provider/lower_requests.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "base/atomic.h"
#include "platform/winsock/layered_handle.h"
#include "provider/overlapped/caller_record.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

LowerRequests* Requests = nullptr;

int Conclude(LowerRequest call, LPDWORD bytes, LPINT error) {
    const int result = Requests->Take(std::move(call), bytes);
    if (result == 0) return 0;
    if (result != kFailsWithoutError) *error = result;
    return SOCKET_ERROR;
}

BOOL ConcludeExtension(LowerRequest call, LPDWORD bytes = nullptr) {
    INT error = 0;
    const int result = Conclude(std::move(call), bytes, &error);
    if (error != 0) WSASetLastError(error);
    return result == 0;
}

BOOL WINAPI LowerTransmitFile(SOCKET s, HANDLE, DWORD, DWORD, LPOVERLAPPED record, LPTRANSMIT_FILE_BUFFERS,
                              DWORD) {
    return ConcludeExtension({OverlappedType::kTransmitFile, s, INVALID_SOCKET, record});
}

BOOL WINAPI LowerAcceptEx(SOCKET s, SOCKET accepting, PVOID, DWORD, DWORD, DWORD, LPDWORD bytes,
                          LPOVERLAPPED record) {
    return ConcludeExtension({OverlappedType::kAcceptEx, s, accepting, record}, bytes);
}

BOOL WINAPI LowerConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID, DWORD, LPDWORD bytes,
                           LPOVERLAPPED record) {
    LowerRequest call = {OverlappedType::kConnectEx, s, INVALID_SOCKET, record};
    call.name = DescribeName(name, namelen);
    return ConcludeExtension(std::move(call), bytes);
}

BOOL WINAPI LowerDisconnectEx(SOCKET s, LPOVERLAPPED record, DWORD, DWORD) {
    return ConcludeExtension({OverlappedType::kDisconnectEx, s, INVALID_SOCKET, record});
}

BOOL WINAPI LowerTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT, DWORD, DWORD, LPOVERLAPPED record,
                                 DWORD) {
    return ConcludeExtension({OverlappedType::kTransmitPackets, s, INVALID_SOCKET, record});
}

INT WINAPI LowerWSARecvMsg(SOCKET s, LPWSAMSG, LPDWORD bytes, LPWSAOVERLAPPED record,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    const LowerRequest call = {OverlappedType::kWsaRecvMsg, s, INVALID_SOCKET, record, routine};
    return ConcludeExtension(call, bytes) ? 0 : SOCKET_ERROR;
}

void FillTransfers(WSPPROC_TABLE& table) {
    using Routine = LPWSAOVERLAPPED_COMPLETION_ROUTINE;
    table.lpWSPSend = Callback([](SOCKET s, LPWSABUF, DWORD, LPDWORD bytes, DWORD, LPWSAOVERLAPPED record,
                                  Routine routine, LPWSATHREADID, LPINT error) {
        return Conclude({OverlappedType::kSend, s, INVALID_SOCKET, record, routine}, bytes, error);
    });
    table.lpWSPSendTo = Callback([](SOCKET s, LPWSABUF, DWORD, LPDWORD bytes, DWORD, const sockaddr*, int,
                                    LPWSAOVERLAPPED record, Routine routine, LPWSATHREADID, LPINT error) {
        return Conclude({OverlappedType::kSendTo, s, INVALID_SOCKET, record, routine}, bytes, error);
    });
    table.lpWSPRecv = Callback([](SOCKET s, LPWSABUF, DWORD, LPDWORD bytes, LPDWORD, LPWSAOVERLAPPED record,
                                  Routine routine, LPWSATHREADID, LPINT error) {
        return Conclude({OverlappedType::kRecv, s, INVALID_SOCKET, record, routine}, bytes, error);
    });
    table.lpWSPRecvFrom =
        Callback([](SOCKET s, LPWSABUF, DWORD, LPDWORD bytes, LPDWORD, sockaddr* from, LPINT length,
                    LPWSAOVERLAPPED record, Routine routine, LPWSATHREADID, LPINT error) {
            const sockaddr_in source = MakeAddress("198.51.100.7", 53);
            if (from != nullptr) std::memcpy(from, &source, sizeof(source));
            if (length != nullptr) *length = sizeof(source);
            return Conclude({OverlappedType::kRecvFrom, s, INVALID_SOCKET, record, routine}, bytes, error);
        });
}

void FillControl(WSPPROC_TABLE& table) {
    table.lpWSPIoctl =
        Callback([](SOCKET s, DWORD code, LPVOID, DWORD, LPVOID, DWORD, LPDWORD bytes, LPWSAOVERLAPPED record,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID, LPINT error) {
            // Extension functions are in the entry already: a code that asks for one must not come.
            EXPECT_NE(code, static_cast<DWORD>(SIO_GET_EXTENSION_FUNCTION_POINTER));
            return Conclude({OverlappedType::kIoctl, s, INVALID_SOCKET, record, routine}, bytes, error);
        });
    table.lpWSPGetOverlappedResult =
        Callback([](SOCKET, LPWSAOVERLAPPED record, LPDWORD bytes, BOOL, LPDWORD flags, LPINT error) -> BOOL {
            const int ended = IsOverlappedInProgress(record)
                                  ? int{WSA_IO_INCOMPLETE}
                                  : static_cast<int>(AcquireWord(record->Internal));
            if (ended != kFailsWithoutError) *error = ended;
            *bytes = static_cast<DWORD>(record->InternalHigh);
            *flags = 0;
            return ended == 0;
        });
    table.lpWSPSocket = Callback([](int, int type, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD, LPINT) {
        const SOCKET s = winsock_host::CreateLayeredHandle();
        Requests->Opened(s, type);
        return s;
    });
    table.lpWSPCloseSocket = Callback([](SOCKET s, LPINT) {
        Requests->EndAll(s);
        winsock_host::CloseLayeredHandle(s);
        return 0;
    });
}

/// Whether the port that its socket is on, if any, is to be told of a request's end.
bool WantsPacket(const LowerRequest& request) {
    return request.routine == nullptr && (reinterpret_cast<ULONG_PTR>(request.record->hEvent) & 1) == 0;
}

}  // namespace

LowerRequests::LowerRequests() {
    Requests = this;
}

LowerRequests::~LowerRequests() {
    Requests = nullptr;
}

void LowerRequests::ServeEntry(LspEntry& entry) {
    FillTransfers(entry.LowerProcedures);
    FillControl(entry.LowerProcedures);
    entry.Extensions.TransmitFile.Publish(LowerTransmitFile);
    entry.Extensions.AcceptEx.Publish(LowerAcceptEx);
    entry.Extensions.ConnectEx.Publish(LowerConnectEx);
    entry.Extensions.DisconnectEx.Publish(LowerDisconnectEx);
    entry.Extensions.TransmitPackets.Publish(LowerTransmitPackets);
    entry.Extensions.WSARecvMsg.Publish(LowerWSARecvMsg);
}

int LowerRequests::Take(LowerRequest call, LPDWORD bytes) {
    int answer;
    std::function<void()> during;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        answer = answer_;
        if (call.record != nullptr) {
            call.offset = call.record->Offset;
            call.offsetHigh = call.record->OffsetHigh;
            if (answer == WSA_IO_PENDING) PublishWord(&call.record->Internal, kOperationInProgress);
            // As any provider does before it ends a request.
            if (EventOf(call.record) != nullptr) ResetEvent(EventOf(call.record));
        }
        call.ended = answer != WSA_IO_PENDING;
        calls_.push_back(call);
        during = std::exchange(during_, nullptr);
    }
    if (during) during();
    if (answer == 0 && bytes != nullptr) *bytes = kBytesAtOnce;
    if (answer == 0 && call.record != nullptr) FinishAtOnce(call);
    return answer;
}

LowerRequest LowerRequests::WaitFor(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Count() < count && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    const std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_GE(calls_.size(), count) << "the request has not come down";
    return calls_.size() >= count ? calls_[count - 1] : LowerRequest{OverlappedType::kIoctl, INVALID_SOCKET};
}

void LowerRequests::End(std::size_t index, DWORD bytes, int error) {
    LowerRequest request;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (calls_.at(index).ended) return;
        calls_[index].ended = true;
        request = calls_[index];
    }
    Finish(request, bytes, error);
}

void LowerRequests::EndAll(SOCKET s) {
    for (std::size_t i = 0; i < Count(); ++i) {
        bool own;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            own = calls_[i].socket == s;
        }
        if (own) End(i, 0, WSA_OPERATION_ABORTED);
    }
}

void LowerRequests::Opened(SOCKET s, int type) {
    const std::lock_guard<std::mutex> lock(mutex_);
    types_[s] = type;
}

bool LowerRequests::IsStream(SOCKET s) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return types_[s] == SOCK_STREAM;
}

void LowerRequests::FinishAtOnce(const LowerRequest& request) {
    const bool packet = WantsPacket(request);
    request.record->InternalHigh = kBytesAtOnce;
    PublishWord(&request.record->Internal, ULONG_PTR{0});
    if (request.routine != nullptr) {
        // Never inside the call, but when its thread waits.
        auto* const later = new LowerRequest(request);
        QueueUserAPC(Callback([](ULONG_PTR argument) {
                         const std::unique_ptr<LowerRequest> done(reinterpret_cast<LowerRequest*>(argument));
                         done->routine(0, kBytesAtOnce, done->record, 0);
                     }),
                     GetCurrentThread(), reinterpret_cast<ULONG_PTR>(later));
    } else if (EventOf(request.record) != nullptr) {
        SetEvent(EventOf(request.record));
    }
    // A stream socket keeps its promise to queue no packet for what succeeds at once.
    if (packet && !IsStream(request.socket))
        winsock_host::AnnounceCompletion(request.socket, request.record, kBytesAtOnce, 0);
}

void LowerRequests::Finish(const LowerRequest& request, DWORD bytes, int error) {
    const HANDLE event = EventOf(request.record);
    const bool packet = WantsPacket(request);
    request.record->InternalHigh = bytes;
    PublishWord(&request.record->Internal, static_cast<ULONG_PTR>(error));
    if (request.routine != nullptr) {
        request.routine(static_cast<DWORD>(error), bytes, request.record, 0);
    } else if (event != nullptr) {
        SetEvent(event);
    }
    if (packet)
        winsock_host::AnnounceCompletion(request.socket, request.record, bytes,
                                         error == 0 ? 0 : DWORD{ERROR_OPERATION_ABORTED});
}
