// What the tests of overlapped requests share: the modes of the layer, a peer, requests that count what they
// are told.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "tests/support/layer_fixture.h"
#include "tests/support/loopback_stream.h"

/// How the layer carries requests out: above its completion port, past which what succeeds at once goes, or
/// (kEveryPacket) not, or goes although a packet comes that must not (kStrayPackets); with a worker that
/// waits alertably because there is no port; or by an event because somebody else's port has the lower
/// socket.
enum class Mode { kCompletionPort, kEveryPacket, kStrayPackets, kAlertable, kForeignPort };

/// A peer that sends back what it gets, on every connection, until it is destroyed.
class EchoPeer {
  public:
    EchoPeer() : acceptor_([this] { Accept(); }) {}
    ~EchoPeer() {
        listener_.Interrupt();
        acceptor_.join();
        for (auto& stream : streams_)
            stream->Interrupt();
        for (std::thread& thread : threads_)
            thread.join();
    }
    EchoPeer(const EchoPeer&) = delete;
    EchoPeer& operator=(const EchoPeer&) = delete;
    std::uint16_t Port() const { return listener_.Port(); }

  private:
    void Accept() {
        auto stream = std::make_unique<LoopbackStream>();
        while (listener_.Accept(*stream)) {
            streams_.push_back(std::move(stream));
            threads_.emplace_back([peer = streams_.back().get()] { Echo(*peer); });
            stream = std::make_unique<LoopbackStream>();
        }
    }

    static void Echo(LoopbackStream& stream) {
        char bytes[4096];
        for (std::size_t got; (got = stream.ReadSome(bytes, sizeof(bytes))) > 0;) {
            if (!stream.WriteAll(bytes, got)) break;
        }
        stream.Interrupt();
    }

    LoopbackListener listener_;
    std::vector<std::unique_ptr<LoopbackStream>> streams_;  // the acceptor's alone until it has ended
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

/// One request of the application: its record comes first, so that a completion leads back to it.
struct Request {
    WSAOVERLAPPED overlapped{};
    WSABUF buffer{};
    char bytes[64] = {};
    int completions = 0;
    DWORD error = 0;
    DWORD transferred = 0;
    DWORD thread = 0;

    Request() { buffer = {sizeof(bytes), bytes}; }
};

inline void CALLBACK CountCompletion(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD) {
    auto* const request = reinterpret_cast<Request*>(overlapped);
    ++request->completions;
    request->error = error;
    request->transferred = bytes;
    request->thread = GetCurrentThreadId();
}

inline SOCKET NewOverlappedSocket(int type = SOCK_STREAM) {
    return WSASocketA(AF_INET, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP, nullptr, 0,
                      WSA_FLAG_OVERLAPPED);
}

/// Makes the process's first socket, which starts the layer and with it the overlapped manager.
inline void StartLayerIn(Mode mode) {
    if (mode == Mode::kAlertable) platform::ArmFault({"CreateIoCompletionPort"});
    closesocket(NewOverlappedSocket());
    if (mode == Mode::kAlertable) {
        EXPECT_EQ(platform::FaultsStruck(), 1);
    }
    platform::DisarmFaults();
}

/// Has the system promise from now on to queue no packet for what succeeds at once, and queue it all the
/// same.
inline void QueueStrayPackets() {
    platform::ArmFault({"SetFileCompletionNotificationModes", 1, platform::FaultKind::kIgnored, 0, true});
}

/// No lower socket can be put on the layer's port from now on; nor any other socket on any.
inline void PutLowerSocketsOnAForeignPort() {
    platform::ArmFault(
        {"CreateIoCompletionPort", 1, platform::FaultKind::kError, ERROR_INVALID_PARAMETER, true});
}

class OverlappedTest : public LayerFixture, public ::testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        LayerFixture::SetUp();
        StartWinsock();
        StartLayerIn(GetParam());
        if (GetParam() == Mode::kForeignPort) PutLowerSocketsOnAForeignPort();
    }
};

/// A manual-reset event in a request, and the wait for it.
class EventRequest : public Request {
  public:
    EventRequest() { overlapped.hEvent = WSACreateEvent(); }
    ~EventRequest() { WSACloseEvent(overlapped.hEvent); }
    EventRequest(const EventRequest&) = delete;
    EventRequest& operator=(const EventRequest&) = delete;

    /// The Winsock error it ended with; bytes in `transferred`.
    DWORD Wait(SOCKET s) {
        EXPECT_EQ(WaitForSingleObject(overlapped.hEvent, 20000), WAIT_OBJECT_0);
        DWORD flags = 0;
        return WSAGetOverlappedResult(s, &overlapped, &transferred, FALSE, &flags)
                   ? 0
                   : static_cast<DWORD>(WSAGetLastError());
    }
};

inline const char* NameOf(Mode mode) {
    static const char* const names[] = {"CompletionPort", "EveryPacket", "StrayPackets", "Alertable",
                                        "ForeignPort"};
    return names[static_cast<int>(mode)];
}
inline void PrintTo(Mode mode, std::ostream* stream) {
    *stream << NameOf(mode);
}

template <class Function>
Function Extension(SOCKET s, GUID id) {
    Function function = nullptr;
    DWORD bytes = 0;
    EXPECT_EQ(WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function, sizeof(function),
                       &bytes, nullptr, nullptr),
              0)
        << WSAGetLastError();
    return function;
}

inline sockaddr* Plain(sockaddr_in* address) {
    return reinterpret_cast<sockaddr*>(address);
}

/// Makes one coming call of a platform function fail, or all of them.
inline void FailCall(const char* function, DWORD error, bool repeat = false) {
    platform::ArmFault({function, 1, platform::FaultKind::kError, error, repeat});
}

/// What a call reported: 0, WSA_IO_PENDING or its error.
inline int ErrorOf(bool succeeded) {
    return succeeded ? 0 : WSAGetLastError();
}

/// Whether a request was taken that reported this: only then is its end told.
inline bool WasTaken(int result) {
    return result == 0 || result == WSA_IO_PENDING;
}

/// A socket that is connected to a port of the loopback interface; INVALID_SOCKET when it can't be.
inline SOCKET Connected(std::uint16_t port) {
    const SOCKET s = NewOverlappedSocket();
    sockaddr_in address = Ipv4("127.0.0.1", port);
    if (connect(s, Plain(&address), sizeof(address)) == 0) return s;
    ADD_FAILURE() << WSAGetLastError();
    closesocket(s);
    return INVALID_SOCKET;
}

inline int Receive(SOCKET s, Request& request, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    DWORD flags = 0;
    return ErrorOf(WSARecv(s, &request.buffer, 1, nullptr, &flags, &request.overlapped, routine) == 0);
}

inline int Send(SOCKET s, Request& request, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    return ErrorOf(WSASend(s, &request.buffer, 1, nullptr, 0, &request.overlapped, routine) == 0);
}

inline int ConnectExTo(SOCKET s, sockaddr_in address, void* data, DWORD length, LPOVERLAPPED overlapped) {
    const auto connectEx = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    DWORD bytes = 0;
    return ErrorOf(connectEx(s, Plain(&address), sizeof(address), data, length, &bytes, overlapped));
}
