// The overlapped manager between fakes: what its records and its alertable worker do when a clean-up, a close
// or a lower provider that does not let go comes in between.
#include "provider/overlapped/overlapped_manager.h"

#include <winsock2.h>

#include <mswsock.h>
#include <windows.h>

#include <gtest/gtest.h>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "provider/operations/extension_functions.h"
#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_completion.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

constexpr DWORD kBlockingCode = 1;
constexpr DWORD kPatience = 20000;

/// What the lower provider shares with the test.
struct LowerRequests {
    HANDLE entered = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE gate = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    int accepts = 0;                      // read once `entered` or the request's own event is set
    LPOVERLAPPED acceptRecord = nullptr;  // likewise

    LowerRequests() = default;
    ~LowerRequests() {
        CloseHandle(entered);
        CloseHandle(gate);
    }
    LowerRequests(const LowerRequests&) = delete;
    LowerRequests& operator=(const LowerRequests&) = delete;
};
LowerRequests* Requests = nullptr;

BOOL WINAPI LowerAcceptEx(SOCKET, SOCKET, PVOID, DWORD, DWORD, DWORD, LPDWORD, LPOVERLAPPED overlapped) {
    ++Requests->accepts;
    Requests->acceptRecord = overlapped;
    SetEvent(Requests->entered);
    WSASetLastError(WSA_IO_PENDING);
    return FALSE;
}

/// Gives AcceptEx away; holds whoever sends kBlockingCode until the gate is opened, and refuses it then.
int WSPAPI LowerIoctl(SOCKET, DWORD code, LPVOID, DWORD, LPVOID output, DWORD, LPDWORD, LPWSAOVERLAPPED,
                      LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
    if (code == SIO_GET_EXTENSION_FUNCTION_POINTER) {
        const LPFN_ACCEPTEX function = LowerAcceptEx;
        std::memcpy(output, &function, sizeof(function));
        return 0;
    }
    SetEvent(Requests->entered);
    EXPECT_EQ(WaitForSingleObject(Requests->gate, kPatience), static_cast<DWORD>(WAIT_OBJECT_0));
    *error = WSAENOBUFS;
    return SOCKET_ERROR;
}

class OverlappedManager : public FakeWinsock {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        Requests = new LowerRequests;
        UseLower();
        UpcallTable.lpWPUOpenCurrentThread = Callback([](LPWSATHREADID, LPINT error) {
            *error = WSAEINVAL;
            return SOCKET_ERROR;
        });
    }

    void TearDown() override {
        EXPECT_TRUE(StopOverlappedManager());
        FreeOverlappedRecords();
        delete Requests;
        FakeWinsock::TearDown();
    }

    void UseLower() { Lower().lpWSPIoctl = LowerIoctl; }

    /// A manager whose one worker makes the lower calls.
    static void StartAlertable() {
        platform::ArmFault({"CreateIoCompletionPort"});
        ASSERT_EQ(StartOverlappedManager(), 0);
        ASSERT_EQ(platform::FaultsStruck(), 1);
        platform::DisarmFaults();
    }

    OverlappedOperation* Prepare(SOCKET s, LPWSAOVERLAPPED overlapped) {
        return PrepareOverlappedOperation(ContextOf(s), OverlappedType::kRecv, {overlapped}, {}, &error_);
    }

    /// Has the worker make a lower call that stays inside until the gate is opened.
    void StartBlocking(SOCKET s, LPWSAOVERLAPPED overlapped) {
        DWORD bytes = 0;
        EXPECT_EQ(
            WSPIoctl(s, kBlockingCode, nullptr, 0, nullptr, 0, &bytes, overlapped, nullptr, nullptr, &error_),
            SOCKET_ERROR);
        EXPECT_EQ(error_, WSA_IO_PENDING);
        ASSERT_EQ(WaitForSingleObject(Requests->entered, kPatience), WAIT_OBJECT_0);
    }

    /// Lets the close of a lower socket end the lower calls on it.
    void CloseOpensTheGate() {
        Lower().lpWSPCloseSocket = Callback([](SOCKET, LPINT) {
            SetEvent(Requests->gate);
            return 0;
        });
    }

    static bool Accept(SOCKET listener, SOCKET accepting, LPWSAOVERLAPPED overlapped) {
        static char output[64];
        DWORD bytes = 0;
        return !LayerAcceptEx(listener, accepting, output, 0, 32, 32, &bytes, overlapped) &&
               WSAGetLastError() == WSA_IO_PENDING;
    }
};

TEST_F(OverlappedManager, ARecordGivenBackDuringACleanUpIsNotUsedByTheNextStart) {
    ASSERT_EQ(StartOverlappedManager(), 0);
    WSAOVERLAPPED overlapped{};
    const SOCKET overtaken = MakeSocket();
    OverlappedOperation* const late = Prepare(overtaken, &overlapped);
    ASSERT_NE(late, nullptr);
    EXPECT_TRUE(StopOverlappedManager());
    FreeOverlappedRecords();
    FailOverlappedOperation(late, ContextOf(overtaken), WSANOTINITIALISED);
    Close(overtaken);
    ASSERT_TRUE(FreeCatalog());

    BuildCatalog();
    ASSERT_EQ(StartOverlappedManager(), 0);
    const SOCKET s = MakeSocket();
    OverlappedOperation* const operation = Prepare(s, &overlapped);
    ASSERT_NE(operation, nullptr);
    FailOverlappedOperation(operation, ContextOf(s), WSAENOBUFS);
    Close(s);
}

TEST_F(OverlappedManager, ASocketThatIsBeingClosedIsNotPutOnThePort) {
    ASSERT_EQ(StartOverlappedManager(), 0);
    const SOCKET s = MakeSocket();
    WSAOVERLAPPED overlapped{};
    OverlappedOperation* const operation = Prepare(s, &overlapped);
    ASSERT_NE(operation, nullptr);
    ContextOf(s)->Closing = TRUE;
    platform::ArmFault({"CreateIoCompletionPort"});
    EXPECT_EQ(QueueOverlappedOperation(operation, ContextOf(s)).Error, WSAENOTSOCK);
    EXPECT_EQ(platform::FaultsStruck(), 0) << "the value may be another socket's by now";
    platform::DisarmFaults();
    ContextOf(s)->Closing = FALSE;
    Close(s);
}

TEST_F(OverlappedManager, AnAcceptWhoseSocketWasClosedWhileItWaitedIsNotHandedDown) {
    StartAlertable();
    const SOCKET busy = MakeSocket();
    const SOCKET listener = MakeSocket();
    const SOCKET accepting = MakeSocket();
    WSAOVERLAPPED blocking{};
    StartBlocking(busy, &blocking);

    WSAOVERLAPPED overlapped{};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_TRUE(Accept(listener, accepting, &overlapped));
    Close(accepting);
    SetEvent(Requests->gate);
    EXPECT_EQ(WaitForSingleObject(overlapped.hEvent, kPatience), WAIT_OBJECT_0);
    EXPECT_EQ(overlapped.OffsetHigh, static_cast<DWORD>(WSAENOTSOCK));
    EXPECT_EQ(Requests->accepts, 0);
    EXPECT_TRUE(StopOverlappedManager());
    CloseHandle(overlapped.hEvent);
    Close(listener);
    Close(busy);
}

TEST_F(OverlappedManager, ARequestWhoseSocketIsClosedWhileItIsAnalyzedIsNotHandedDown) {
    StartAlertable();
    Fake().sent = [](SocketContext* context) { Close(context->LayeredSocket); };
    Lower().lpWSPSend = Callback([](SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, LPWSAOVERLAPPED,
                                    LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) -> int {
        ADD_FAILURE() << "the lower socket's value may be another one's by now";
        *error = WSAENOBUFS;
        return SOCKET_ERROR;
    });
    const SOCKET s = MakeSocket();
    WSAOVERLAPPED overlapped{};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD bytes = 0;
    EXPECT_EQ(WSPSend(s, nullptr, 0, &bytes, 0, &overlapped, nullptr, nullptr, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSA_IO_PENDING);
    EXPECT_EQ(WaitForSingleObject(overlapped.hEvent, kPatience), WAIT_OBJECT_0);
    EXPECT_EQ(overlapped.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
    EXPECT_TRUE(StopOverlappedManager());
    CloseHandle(overlapped.hEvent);
}

TEST_F(OverlappedManager, ACloseBelowWaitsForARequestOnItsLowerSocketUse) {
    StartAlertable();
    CloseOpensTheGate();
    Lower().lpWSPIoctl = Callback([](SOCKET, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPWSAOVERLAPPED,
                                     LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
        SetEvent(Requests->entered);
        EXPECT_EQ(WaitForSingleObject(Requests->gate, 100), static_cast<DWORD>(WAIT_TIMEOUT))
            << "the request would reach whatever socket has the value by then";
        *error = WSAENOBUFS;
        return SOCKET_ERROR;
    });
    const SOCKET s = MakeSocket();
    WSAOVERLAPPED overlapped{};
    StartBlocking(s, &overlapped);
    Close(s);
    EXPECT_EQ(WaitForSingleObject(Requests->gate, 0), WAIT_OBJECT_0) << "closed below when the close returns";
    EXPECT_TRUE(StopOverlappedManager());
}

TEST_F(OverlappedManager, ARequestStuckOnItsLowerSocketUseIsFreedByTheClose) {
    StartAlertable();
    CloseOpensTheGate();
    const SOCKET s = MakeSocket();
    WSAOVERLAPPED overlapped{};
    StartBlocking(s, &overlapped);
    const platform::ScopedClockRate fast(5);
    Close(s);
    EXPECT_TRUE(StopOverlappedManager());
    EXPECT_FALSE(IsOverlappedInProgress(&overlapped));
}

TEST_F(OverlappedManager, ARequestThatTheLowerProviderHoldsOnToKeepsItsRecord) {
    StartAlertable();
    const SOCKET listener = MakeSocket();
    const SOCKET accepting = MakeSocket();
    WSAOVERLAPPED overlapped{};
    EXPECT_TRUE(Accept(listener, accepting, &overlapped));
    ASSERT_EQ(WaitForSingleObject(Requests->entered, kPatience), WAIT_OBJECT_0);
    {
        const platform::ScopedClockRate fast(5);
        EXPECT_TRUE(StopOverlappedManager());
    }
    EXPECT_TRUE(IsOverlappedInProgress(&overlapped));
    FreeOverlappedRecords();
    EXPECT_FALSE(FreeCatalog()) << "the record lies in its heap";

    // Now it lets go, and writes into the record as it may until then.
    const HANDLE event = EventOf(Requests->acceptRecord);
    Requests->acceptRecord->InternalHigh = 5;
    EXPECT_TRUE(SetEvent(event));
    CloseHandle(event);
    CompleteOverlappedOperation(0, 5, Requests->acceptRecord, 0);
}

}  // namespace
