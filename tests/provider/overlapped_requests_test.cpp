// Every type of overlapped request between fakes, in every mode of the layer: what comes down, what is
// counted, how often the application is told, and that nothing is held on to afterwards.
#include "tests/provider/overlapped_requests.h"

#include "platform/testing/clock.h"
#include "provider/overlapped/overlapped_completion.h"
#include "tests/support/edge_of_memory.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedRequests,
                         ::testing::Values(RequestMode::kCompletionPort, RequestMode::kAlertable,
                                           RequestMode::kForeignPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedRequests, EndLaterOrAtOnceCountedAndToldOnce) {
    for (const int answer : {int{WSA_IO_PENDING}, 0}) {
        lower_->Answer(answer);
        for (const TypeRow& row : kTypes) {
            SCOPED_TRACE(static_cast<DWORD>(row.type));
            SCOPED_TRACE(answer == 0 ? "at once" : "later");
            const SOCKET s = Open(row.socketType);
            const SOCKET accepting = Open();
            Request request;
            const std::size_t before = lower_->Count();
            const int result = Start(row.type, s, request, accepting);
            const bool atOnce = answer == 0 && GetParam() == RequestMode::kForeignPort;
            EXPECT_EQ(result, atOnce ? 0 : WSA_IO_PENDING);
            if (atOnce && row.reportsBytes) {
                EXPECT_EQ(request.transferred, LowerRequests::kBytesAtOnce);
            }
            const LowerRequest below = lower_->WaitFor(before + 1);
            EXPECT_EQ(below.type, row.type);
            EXPECT_EQ(below.socket, ContextOf(s)->ProviderSocket);
            EXPECT_EQ(below.offset, 70u) << "a file is sent from where the application wants";
            EXPECT_EQ(below.offsetHigh, 7u);
            DWORD bytes = LowerRequests::kBytesAtOnce;
            if (answer != 0) {
                EXPECT_TRUE(IsOverlappedInProgress(&request.record));
                bytes = 9;
                lower_->End(before, bytes, 0);
            }
            EXPECT_EQ(ErrorTold(request, row.hasRoutine), 0u);
            EXPECT_EQ(request.record.InternalHigh, bytes);
            const bool accepts = row.type == OverlappedType::kAcceptEx;
            const SOCKET counting = accepts ? accepting : s;
            if (accepts) {
                EXPECT_EQ(below.accepting, ContextOf(accepting)->ProviderSocket);
            }
            EXPECT_EQ(ContextOf(counting)->BytesSent, row.counter == kSent ? bytes : 0);
            EXPECT_EQ(ContextOf(counting)->BytesRecv, row.counter == kReceived ? bytes : 0);
            CloseLetGo(s);
            CloseLetGo(accepting);
        }
    }
}

TEST_P(OverlappedRequests, FailBelowAreReportedOnceAndCountNothing) {
    for (const int answer : {int{WSAENETDOWN}, kFailsWithoutError}) {
        lower_->Answer(answer);
        for (const TypeRow& row : kTypes) {
            SCOPED_TRACE(static_cast<DWORD>(row.type));
            const SOCKET s = Open(row.socketType);
            const SOCKET accepting = Open();
            Request request;
            WSASetLastError(WSA_IO_PENDING);  // left by an earlier call
            const int result = Start(row.type, s, request, accepting);
            EXPECT_EQ(result == WSA_IO_PENDING, GetParam() == RequestMode::kAlertable);
            EXPECT_EQ(Ended(result, request, row.hasRoutine),
                      static_cast<DWORD>(answer == kFailsWithoutError ? WSAEINVAL : WSAENETDOWN));
            EXPECT_EQ(ContextOf(s)->BytesSent + ContextOf(s)->BytesRecv + ContextOf(accepting)->BytesRecv,
                      0u);
            CloseLetGo(s);
            CloseLetGo(accepting);
        }
    }
}

TEST_P(OverlappedRequests, EndWithAnErrorThoughTheLowerProviderNamesNone) {
    const SOCKET s = Open();
    for (const int error : {kFailsWithoutError, WSAECONNRESET}) {
        const int told = error == kFailsWithoutError ? WSAEINVAL : error;
        const std::size_t before = lower_->Count();
        Request request;
        EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        lower_->End(before, 9, error);
        EXPECT_EQ(ErrorTold(request, false), static_cast<DWORD>(told));
        EXPECT_EQ(ContextOf(s)->LastError, told);
    }
    EXPECT_EQ(ContextOf(s)->BytesSent, 0u);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, EndThoughWinsockDoesNotSayWhoseTheirHandleIs) {
    const SOCKET s = Open();
    const SOCKET accepting = Open();
    const auto query = UpcallTable.lpWPUQuerySocketHandleContext;
    const auto queryBy = [](LPWPUQUERYSOCKETHANDLECONTEXT upcall) {
        const Locker global(qx::GlobalLock);
        UpcallTable.lpWPUQuerySocketHandleContext = upcall;
    };
    for (const OverlappedType type : {OverlappedType::kTransmitFile, OverlappedType::kAcceptEx}) {
        const std::size_t before = lower_->Count();
        Request request;
        EXPECT_EQ(Start(type, s, request, accepting), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        queryBy(Callback([](SOCKET, PDWORD_PTR, LPINT error) {
            *error = WSAENETDOWN;
            return SOCKET_ERROR;
        }));
        lower_->End(before, 9, 0);
        const bool accepts = type == OverlappedType::kAcceptEx;
        EXPECT_EQ(ErrorTold(request, false), accepts ? DWORD{WSAENOTSOCK} : 0u)
            << "its accepting socket is gone";
        queryBy(query);
    }
    EXPECT_EQ(ContextOf(s)->BytesSent, 9u);
    CloseLetGo(s);
    ContextOf(accepting)->OutstandingAsync = 0;  // the end found nothing to take its count off
    CloseLetGo(accepting);
}

TEST_P(OverlappedRequests, BlockedAreReportedOnceAndSendNothing) {
    constexpr struct {
        OverlappedType type;
        int socketType;
        int blockError;
        DWORD expected;
    } kRows[] = {
        {OverlappedType::kSend, SOCK_STREAM, 0, WSAECONNABORTED},
        {OverlappedType::kSend, SOCK_STREAM, WSAETIMEDOUT, WSAETIMEDOUT},
        {OverlappedType::kSendTo, SOCK_DGRAM, 0, WSAECONNREFUSED},
        {OverlappedType::kRecv, SOCK_STREAM, WSAETIMEDOUT, WSAETIMEDOUT},
        {OverlappedType::kRecvFrom, SOCK_DGRAM, WSAETIMEDOUT, WSAETIMEDOUT},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(static_cast<DWORD>(row.type));
        const SOCKET s = Open(row.socketType);
        ContextOf(s)->Blocked = TRUE;
        ContextOf(s)->BlockError = row.blockError;
        Request request;
        EXPECT_EQ(Ended(Start(row.type, s, request), request, true), row.expected);
        CloseLetGo(s);
    }
    EXPECT_EQ(lower_->Count(), 0u);
}

TEST_P(OverlappedRequests, ExtensionCallsWithoutARecordGoDownAsTheyAre) {
    const SOCKET s = Open();
    const SOCKET accepting = Open();
    sockaddr_in address = MakeAddress("198.51.100.8", 54);
    const auto name = reinterpret_cast<sockaddr*>(&address);
    DWORD bytes = 0;
    WSAMSG message{};
    const auto callAll = [&](int error) {
        const auto reported = [](bool done) { return done ? 0 : WSAGetLastError(); };
        EXPECT_EQ(reported(LayerTransmitFile(s, nullptr, 0, 0, nullptr, nullptr, 0)), error);
        EXPECT_EQ(reported(LayerAcceptEx(s, accepting, nullptr, 0, 0, 0, &bytes, nullptr)), error);
        EXPECT_EQ(reported(LayerConnectEx(s, name, sizeof(address), nullptr, 0, &bytes, nullptr)), error);
        EXPECT_EQ(reported(LayerDisconnectEx(s, nullptr, 0, 0)), error);
        EXPECT_EQ(reported(LayerTransmitPackets(s, nullptr, 0, 0, nullptr, 0)), error);
        EXPECT_EQ(reported(LayerWSARecvMsg(s, &message, &bytes, nullptr, nullptr) == 0), error);
    };
    for (const int answer : {0, int{WSAENETDOWN}, kFailsWithoutError}) {
        lower_->Answer(answer);
        WSASetLastError(WSA_IO_PENDING);
        callAll(answer == kFailsWithoutError ? WSAEINVAL : answer);
    }
    for (std::size_t i = 1; i <= lower_->Count(); ++i) {
        const LowerRequest call = lower_->WaitFor(i);
        EXPECT_EQ(call.record, nullptr);
        EXPECT_EQ(call.socket, ContextOf(s)->ProviderSocket);
        if (call.type == OverlappedType::kAcceptEx) {
            EXPECT_EQ(call.accepting, ContextOf(accepting)->ProviderSocket);
        }
    }
    EXPECT_EQ(lower_->Count(), 18u);
    CloseLetGo(s);
    CloseLetGo(accepting);
}

TEST_P(OverlappedRequests, HarmNothingWhenTheirRecordIsGone) {
    for (const bool untilTold : {false, true}) {
        const SOCKET s = Open();
        EdgeOfMemory memory;
        auto* const record = new (memory.LastBytes(sizeof(WSAOVERLAPPED))) WSAOVERLAPPED{};
        WSABUF buffer = {0, nullptr};
        const std::size_t before = lower_->Count();
        EXPECT_EQ(WSPSend(s, &buffer, 1, nullptr, 0, record, CountCompletion, nullptr, &error_),
                  SOCKET_ERROR);
        EXPECT_EQ(std::exchange(error_, 0), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        if (!untilTold) memory.TakeAway();
        lower_->End(before, 9, 0);
        if (untilTold) {
            const QueuedRoutine routine = TakeRoutine();
            memory.TakeAway();
            routine.first(routine.second);
        }
        CloseLetGo(s);
    }
}

TEST_P(OverlappedRequests, ADatagramsSourceBecomesTheDestination) {
    lower_->Answer(0);
    const SOCKET s = Open(SOCK_DGRAM);
    Request receive;
    const int result = Start(OverlappedType::kRecvFrom, s, receive);
    EXPECT_EQ(Ended(result, receive, true), 0u);
    EXPECT_EQ(ContextOf(s)->DestinationAddress.Port(), 53);
    EXPECT_EQ(ContextOf(s)->DestinationAddressLength, 16);
    Request send;
    EXPECT_EQ(Ended(Start(OverlappedType::kSendTo, s, send), send, true), 0u);
    EXPECT_EQ(ContextOf(s)->DestinationAddress.Port(), 54);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, ManyUnderWayHoldUpNoOther) {
    // More than one thread can wait for at once, twice.
    constexpr std::size_t kMany = 2 * MAXIMUM_WAIT_OBJECTS + 2;
    const SOCKET listener = Open();
    const SOCKET accepting = Open();
    std::deque<Request> requests(kMany);
    for (Request& request : requests)
        EXPECT_EQ(Start(OverlappedType::kAcceptEx, listener, request, accepting), WSA_IO_PENDING);
    lower_->WaitFor(kMany);
    const SOCKET s = Open();
    for (const OverlappedType type : {OverlappedType::kSend, OverlappedType::kTransmitFile}) {
        const std::size_t before = lower_->Count();
        Request other;
        ASSERT_EQ(Start(type, s, other), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        lower_->End(before, 1, 0);
        EXPECT_EQ(ErrorTold(other, type == OverlappedType::kSend), 0u);
    }
    for (std::size_t i = kMany; i-- > 0;)
        lower_->End(i, 1, 0);
    for (Request& request : requests)
        EXPECT_EQ(ErrorTold(request, false), 0u);
    EXPECT_EQ(ContextOf(accepting)->BytesRecv, kMany);
    CloseLetGo(s);
    CloseLetGo(listener);
    CloseLetGo(accepting);
}

TEST_P(OverlappedRequests, ASocketThatIsBeingClosedTakesNone) {
    const SOCKET s = Open();
    ContextReference closing(s, &error_);
    closing->Closing = TRUE;
    for (const OverlappedType type : {OverlappedType::kSend, OverlappedType::kDisconnectEx}) {
        Request request;
        EXPECT_EQ(Start(type, s, request), WSAENOTSOCK);
        EXPECT_FALSE(IsOverlappedInProgress(&request.record));
    }
    EXPECT_EQ(lower_->Count(), 0u);
    closing->Closing = FALSE;
    closing.Release();
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, TheLowerHandleIsToldOfALayeredProvidersSocket) {
    Entry(SOCK_STREAM).NextProvider.ProtocolChain.ChainLen = 2;
    const SOCKET s = Open();
    Request request;
    SOCKET lower = 0;
    EXPECT_EQ(
        ErrorOf(WSPIoctl(s, SIO_QUERY_TARGET_PNP_HANDLE, nullptr, 0, &lower, sizeof(lower),
                         &request.transferred, &request.record, CountCompletion, nullptr, &error_) == 0),
        0);
    EXPECT_EQ(lower, ContextOf(s)->ProviderSocket);
    EXPECT_EQ(request.transferred, sizeof(SOCKET));
    EXPECT_EQ(ErrorTold(request, true), 0u);
    EXPECT_EQ(request.record.InternalHigh, sizeof(SOCKET));
    EXPECT_EQ(lower_->Count(), 0u);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, WithoutAThreadOrEventToWaitForThemAreRefused) {
    // A completion port needs neither.
    if (GetParam() == RequestMode::kCompletionPort) return;
    // The last worker to begin may want a thread, too.
    const platform::Fault faults[] = {
        {"CreateThread", 1, platform::FaultKind::kError, 0, true}, {"CreateEventA", 1}, {"CreateEventA", 2}};
    for (const platform::Fault& fault : faults) {
        SCOPED_TRACE(fault.function);
        const SOCKET s = Open();
        Request request;
        platform::ArmFault(fault);
        const int result = Start(OverlappedType::kTransmitFile, s, request);
        EXPECT_EQ(Ended(result, request, false), static_cast<DWORD>(WSAENOBUFS));
        EXPECT_GT(platform::FaultsStruck(), 0);
        platform::DisarmFaults();
        CloseLetGo(s);
    }
    EXPECT_EQ(lower_->Count(), 0u);
}

TEST_P(OverlappedRequests, AreServedAfterAStartThatFailedInPartAndRefusedAfterOneThatFailed) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    lower_->Answer(0);
    for (const int failing : {2, 1}) {
        EXPECT_TRUE(StopOverlappedManager());
        FreeOverlappedRecords();
        const bool alertable = GetParam() == RequestMode::kAlertable;
        if (alertable) platform::ArmFault({"CreateIoCompletionPort"});
        platform::ArmFault({"CreateThread", failing, platform::FaultKind::kError, 0, true});
        const bool whole = failing == 2 && (alertable || info.dwNumberOfProcessors == 1);
        EXPECT_EQ(StartOverlappedManager(), whole ? 0 : WSAEPROVIDERFAILEDINIT);
        platform::DisarmFaults();
        const SOCKET s = Open(SOCK_DGRAM);
        Request request;
        const int result = Start(OverlappedType::kSendTo, s, request);
        EXPECT_EQ(Ended(result, request, true), failing == 2 ? 0u : DWORD{WSANOTINITIALISED});
        CloseLetGo(s);
    }
}

TEST_P(OverlappedRequests, OnTheirWayDownWhileTheManagerStopsAreNotLost) {
    // Elsewhere a worker makes the lower call, or the port has what is under way.
    if (GetParam() != RequestMode::kForeignPort) return;
    const SOCKET s = Open();
    Request request;
    lower_->DuringNext([] { EXPECT_TRUE(StopOverlappedManager()); });
    const platform::ScopedClockRate fast(5);
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
    EXPECT_TRUE(IsOverlappedInProgress(&request.record)) << "cancelled, but not let go of";
    const LPWSAOVERLAPPED below = lower_->WaitFor(1).record;
    const HANDLE event = EventOf(below);
    Close(s);
    CloseHandle(event);
    CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, below, 0);
    EXPECT_EQ(ErrorTold(request, false), static_cast<DWORD>(WSA_OPERATION_ABORTED));
}

TEST_P(OverlappedRequests, WhatTheLowerProviderHoldsOnToEndsTheStopNonetheless) {
    const SOCKET s = Open();
    Request request;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
    const LPWSAOVERLAPPED below = lower_->WaitFor(1).record;
    {
        const platform::ScopedClockRate fast(5);
        EXPECT_TRUE(StopOverlappedManager());
    }
    EXPECT_TRUE(IsOverlappedInProgress(&request.record)) << "the lower provider may yet write to its record";
    Request late;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, late), WSANOTINITIALISED);
    const HANDLE event = EventOf(below);
    FreeOverlappedRecords();
    EXPECT_FALSE(FreeCatalog()) << "the record lies in its heap";
    // Now it lets go, and writes into the record as it may until then.
    below->InternalHigh = 5;
    if (event != nullptr) CloseHandle(event);
    CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, below, 0);
}

}  // namespace
