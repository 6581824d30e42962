// The life of an overlapped connection, once for every platform call in it, with that call failing: connect
// by ConnectEx with a verdict, send, receive, disconnect. Whatever fails, each request that was taken ends,
// with success or an error that Winsock documents, and nothing stays behind.
#include <winsock2.h>

#include <mswsock.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "tests/faults/layer_sweep.h"

namespace {

/// One request, waited for by polling its record: that makes no platform call that could itself be struck.
struct PolledRequest {
    WSAOVERLAPPED overlapped{};

    bool InProgress() const { return __atomic_load_n(&overlapped.Internal, __ATOMIC_ACQUIRE) == 0x103; }

    /// What was wrong with its end; empty for a documented one. `*succeeded` tells how it ended.
    std::string End(const char* call, bool taken, bool* succeeded) {
        *succeeded = false;
        const int error = taken ? 0 : WSAGetLastError();
        if (!taken && error != WSA_IO_PENDING) return JudgeError(call, error);
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (InProgress()) {
            if (std::chrono::steady_clock::now() > limit) return std::string(call) + " never ends";
            std::this_thread::yield();
        }
        const int ended = static_cast<int>(overlapped.OffsetHigh);
        *succeeded = ended == 0;
        return ended == 0 ? "" : JudgeError(call, ended);
    }
};

template <class Function>
bool Fetch(SOCKET s, GUID id, Function* function) {
    DWORD bytes = 0;
    return WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), function, sizeof(*function),
                    &bytes, nullptr, nullptr) == 0;
}

/// Connects by ConnectEx with a verdict, sends, receives and disconnects.
std::string Exchange(SOCKET s) {
    const sockaddr_in any = Ipv4("0.0.0.0", 0);
    if (bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
        return JudgeError("bind", WSAGetLastError());
    LPFN_CONNECTEX connectEx = nullptr;
    LPFN_DISCONNECTEX disconnectEx = nullptr;
    if (!Fetch(s, WSAID_CONNECTEX, &connectEx) || !Fetch(s, WSAID_DISCONNECTEX, &disconnectEx))
        return JudgeError("WSAIoctl", WSAGetLastError());

    bool succeeded = false;
    const sockaddr_in destination = Ipv4("203.0.113.10", 80);
    PolledRequest connecting;
    std::string wrong =
        connecting.End("ConnectEx",
                       connectEx(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination),
                                 nullptr, 0, nullptr, &connecting.overlapped),
                       &succeeded);
    if (!succeeded) return wrong;

    char ping[] = "ping";
    WSABUF out = {4, ping};
    PolledRequest sending;
    wrong = sending.End("WSASend", WSASend(s, &out, 1, nullptr, 0, &sending.overlapped, nullptr) == 0,
                        &succeeded);
    if (!succeeded) return wrong;

    char pong[16];
    WSABUF in = {sizeof(pong), pong};
    DWORD flags = 0;
    PolledRequest receiving;
    wrong = receiving.End("WSARecv", WSARecv(s, &in, 1, nullptr, &flags, &receiving.overlapped, nullptr) == 0,
                          &succeeded);
    if (!succeeded) return wrong;

    PolledRequest disconnecting;
    return disconnecting.End("DisconnectEx", disconnectEx(s, &disconnecting.overlapped, 0, 0), &succeeded);
}

class OverlappedSweep : public LayerSweep {
  protected:
    OverlappedSweep() : LayerSweep(Exchange, 20) {}
};

}  // namespace

TEST_F(OverlappedSweep, EveryCallFailsInTurn) {
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, Scenario());
    Report(result, "errors");
    EXPECT_GT(result.runs, 100);
}

TEST_F(OverlappedSweep, EveryGuardedCallRaisesInTurn) {
    const SweepResult result = SweepExceptions({});
    Report(result, "exceptions");
    EXPECT_GT(result.runs, 20);
}
