// What the overlapped manager's records and its alertable worker do when a clean-up or a close comes in
// between, or something is missing.
#include <algorithm>

#include "platform/testing/clock.h"
#include "provider/overlapped/overlapped_completion.h"
#include "tests/provider/overlapped_requests.h"

namespace {

/// Opened by the close of a lower socket, or by a test.
HANDLE Gate = nullptr;
LPWSPCLOSESOCKET CloseBelow = nullptr;

class OverlappedManager : public OverlappedRequests {
  protected:
    void SetUp() override {
        Gate = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        OverlappedRequests::SetUp();
        CloseBelow = Lower().lpWSPCloseSocket;
        Lower().lpWSPCloseSocket = Callback([](SOCKET s, LPINT error) {
            SetEvent(Gate);
            return CloseBelow(s, error);
        });
    }
    void TearDown() override {
        OverlappedRequests::TearDown();
        CloseHandle(Gate);
    }

    OverlappedOperation* Prepare(SOCKET s, Request& request) {
        return PrepareOverlappedOperation(ContextOf(s), OverlappedType::kRecv, {&request.record}, {},
                                          &error_);
    }

    /// Has a lower call that fails wait inside for the gate, for as long as is given, with this result.
    void StartBlocking(SOCKET s, Request& request, DWORD milliseconds, DWORD waitResult) {
        lower_->Answer(WSAENOBUFS);
        lower_->DuringNext(
            [=] { EXPECT_EQ(WaitForSingleObject(Gate, milliseconds), waitResult) << "closed below"; });
        EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
        lower_->WaitFor(1);
    }
};

class AlertableManager : public OverlappedManager {};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedManager, ::testing::Values(RequestMode::kCompletionPort),
                         [](const auto& mode) { return NameOf(mode.param); });
INSTANTIATE_TEST_SUITE_P(Modes, AlertableManager, ::testing::Values(RequestMode::kAlertable),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedManager, ARecordGivenBackDuringACleanUpIsNotUsedByTheNextStart) {
    Request request;
    const SOCKET overtaken = MakeSocket();
    OverlappedOperation* const late = Prepare(overtaken, request);
    ASSERT_NE(late, nullptr);
    EXPECT_TRUE(StopOverlappedManager());
    FreeOverlappedRecords();
    FailOverlappedOperation(late, ContextOf(overtaken), WSANOTINITIALISED);
    Close(overtaken);
    ASSERT_TRUE(FreeCatalog());

    BuildCatalog();
    ASSERT_EQ(StartOverlappedManager(), 0);
    const SOCKET s = MakeSocket();
    OverlappedOperation* const operation = Prepare(s, request);
    ASSERT_NE(operation, nullptr);
    FailOverlappedOperation(operation, ContextOf(s), WSAENOBUFS);
    Close(s);
}

TEST_P(OverlappedManager, ASocketThatIsBeingClosedIsNotPutOnThePort) {
    const SOCKET s = MakeSocket();
    Request request;
    OverlappedOperation* const operation = Prepare(s, request);
    ASSERT_NE(operation, nullptr);
    ContextOf(s)->Closing = TRUE;
    platform::ArmFault({"CreateIoCompletionPort"});
    EXPECT_EQ(QueueOverlappedOperation(operation, ContextOf(s)).Error, WSAENOTSOCK);
    EXPECT_EQ(platform::FaultsStruck(), 0) << "the value may be another socket's by now";
    platform::DisarmFaults();
    ContextOf(s)->Closing = FALSE;
    Close(s);
}

TEST_P(OverlappedManager, OnlyARoutineNeedsAThreadAndWithoutOneAnEvent) {
    UpcallTable.lpWPUOpenCurrentThread = Callback([](LPWSATHREADID, LPINT error) {
        *error = WSAENOBUFS;
        return SOCKET_ERROR;
    });
    lower_->Answer(0);
    const SOCKET s = MakeSocket();
    Request request;
    EXPECT_EQ(Start(OverlappedType::kSend, s, request), WSAENOBUFS);
    EXPECT_EQ(Ended(Start(OverlappedType::kTransmitFile, s, request), request, false), 0u);
    const HANDLE event =
        std::exchange(request.record.hEvent, reinterpret_cast<HANDLE>(ULONG_PTR{0x7ffffff0}));
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_INVALID_HANDLE);
    request.record.hEvent = event;
    CloseLetGo(s);
}

TEST_P(OverlappedManager, OnlyABaseProvidersStreamsAreToQueueNoPacketOfSuccess) {
    const struct {
        const char* what;
        int type;
        int chainLength;
        DWORD flags;
        int asked;
    } rows[] = {
        {"a stream", SOCK_STREAM, BASE_PROTOCOL, XP1_IFS_HANDLES, 1},
        {"datagrams", SOCK_DGRAM, BASE_PROTOCOL, XP1_IFS_HANDLES, 0},
        {"a stream above a layer", SOCK_STREAM, 2, XP1_IFS_HANDLES, 0},
        {"a stream whose socket is no handle", SOCK_STREAM, BASE_PROTOCOL, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Entry(row.type).NextProvider.ProtocolChain.ChainLen = row.chainLength;
        Entry(row.type).NextProvider.dwServiceFlags1 = row.flags;
        const SOCKET s = MakeSocket(row.type);
        Request request;
        platform::CountCalls();
        EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
        const std::vector<std::string> calls = platform::CountedCalls();
        platform::DisarmFaults();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "SetFileCompletionNotificationModes"), row.asked);
        lower_->End(lower_->Count() - 1, 1, 0);
        EXPECT_EQ(ErrorTold(request, false), 0u);
        CloseLetGo(s);
    }
}

TEST_P(AlertableManager, AnAcceptWhoseSocketWasClosedWhileItWaitedIsNotHandedDown) {
    const SOCKET busy = MakeSocket();
    const SOCKET listener = MakeSocket();
    const SOCKET accepting = MakeSocket();
    Request blocking;
    Request accept;
    StartBlocking(busy, blocking, kRequestPatience, WAIT_OBJECT_0);
    EXPECT_EQ(Start(OverlappedType::kAcceptEx, listener, accept, accepting), WSA_IO_PENDING);
    Close(accepting);
    EXPECT_EQ(ErrorTold(accept, false), static_cast<DWORD>(WSAENOTSOCK));
    EXPECT_EQ(lower_->Count(), 1u);
    CloseLetGo(listener);
    CloseLetGo(busy);
}

TEST_P(AlertableManager, ARequestWhoseSocketIsClosedWhileItIsAnalyzedIsNotHandedDown) {
    Fake().sent = [](SocketContext* context) { Close(context->LayeredSocket); };
    Request request;
    EXPECT_EQ(Start(OverlappedType::kSend, MakeSocket(), request), WSA_IO_PENDING);
    EXPECT_EQ(ErrorTold(request, true), static_cast<DWORD>(WSA_OPERATION_ABORTED));
    EXPECT_EQ(lower_->Count(), 0u) << "the lower socket's value may be another one's by now";
}

TEST_P(AlertableManager, ACloseBelowWaitsForARequestOnItsLowerSocketUse) {
    const SOCKET s = MakeSocket();
    Request request;
    StartBlocking(s, request, 100, WAIT_TIMEOUT);
    Close(s);
    EXPECT_EQ(WaitForSingleObject(Gate, 0), WAIT_OBJECT_0) << "closed below when the close returns";
}

TEST_P(AlertableManager, ARequestStuckOnItsLowerSocketUseIsFreedByTheClose) {
    const SOCKET s = MakeSocket();
    Request request;
    StartBlocking(s, request, kRequestPatience, WAIT_OBJECT_0);
    const platform::ScopedClockRate fast(5);
    Close(s);
    EXPECT_TRUE(StopOverlappedManager());
    EXPECT_FALSE(IsOverlappedInProgress(&request.record));
}

}  // namespace
