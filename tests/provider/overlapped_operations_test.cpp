// Every type of overlapped request in every mode of the layer: what becomes of it when the lower provider
// ends it at once, later, with an error, or with its socket. Each is told to a completion port, where a
// second telling would show.
#include <winsock2.h>

#include <mstcpip.h>
#include <mswsock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/provider/overlapped_fixture.h"

namespace {

constexpr ULONG kLongSend = 32u << 20;

sockaddr_in BindToLoopback(SOCKET s) {
    sockaddr_in name = Ipv4("127.0.0.1", 0);
    int length = sizeof(name);
    EXPECT_EQ(bind(s, Plain(&name), length), 0) << WSAGetLastError();
    EXPECT_EQ(getsockname(s, Plain(&name), &length), 0);
    return name;
}

/// What one request needs around it. `subject` is the socket that the request is made on.
struct Stage {
    Stage() = default;
    ~Stage() {
        for (const SOCKET s : {subject, other, third}) {
            if (s != INVALID_SOCKET) closesocket(s);
        }
        peer.Interrupt();
        if (reader.joinable()) reader.join();
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    void Connect() {
        subject = Connected(listener.Port());
        ASSERT_TRUE(subject != INVALID_SOCKET && listener.Accept(peer));
    }
    void Datagrams() {
        subject = NewOverlappedSocket(SOCK_DGRAM);
        other = NewOverlappedSocket(SOCK_DGRAM);
        name = BindToLoopback(subject);
        otherName = BindToLoopback(other);
    }
    void Bind() {
        subject = NewOverlappedSocket();
        BindToLoopback(subject);
    }
    void Listen() {
        subject = NewOverlappedSocket();
        name = BindToLoopback(subject);
        ASSERT_EQ(listen(subject, 4), 0);
        other = NewOverlappedSocket();
    }

    void PeerSends() { ASSERT_TRUE(peer.WriteAll("hello", 5)); }
    void PeerReads() {
        bytes.resize(1 << 20);
        reader = std::thread([this] {
            while (peer.ReadSome(bytes.data(), bytes.size()) > 0) {
            }
        });
    }
    void DatagramArrives() { ASSERT_EQ(sendto(other, "hello", 5, 0, Plain(&name), sizeof(name)), 5); }
    void ClientArrives() {
        third = NewOverlappedSocket();
        ASSERT_EQ(connect(third, Plain(&name), sizeof(name)), 0) << WSAGetLastError();
        ASSERT_EQ(send(third, "hello", 5, 0), 5);
    }

    SOCKET subject = INVALID_SOCKET;
    SOCKET other = INVALID_SOCKET;
    SOCKET third = INVALID_SOCKET;
    sockaddr_in name{};
    sockaddr_in otherName{};
    LoopbackListener listener;
    LoopbackStream peer;
    std::thread reader;
    std::vector<char> bytes;

    // What the requests point to while they are under way.
    Request request;
    std::vector<char> longBuffer;
    sockaddr_in from{};
    INT fromLength = sizeof(sockaddr_in);
    WSAMSG message{};
    char head[4] = "abc";
    char tail[4] = "de";
    TRANSMIT_FILE_BUFFERS fileBuffers{};
    TRANSMIT_PACKETS_ELEMENT elements[2]{};
    char accepted[16 + 2 * 144] = {};
    tcp_keepalive keepAlive{1, 60000, 1000};
};

int StartIoctl(Stage& stage) {
    DWORD bytes = 0;
    return ErrorOf(WSAIoctl(stage.subject, SIO_KEEPALIVE_VALS, &stage.keepAlive, sizeof(stage.keepAlive),
                            nullptr, 0, &bytes, &stage.request.overlapped, nullptr) == 0);
}

int StartRecv(Stage& stage) {
    return Receive(stage.subject, stage.request);
}

int StartRecvFrom(Stage& stage) {
    DWORD flags = 0;
    return ErrorOf(WSARecvFrom(stage.subject, &stage.request.buffer, 1, nullptr, &flags, Plain(&stage.from),
                               &stage.fromLength, &stage.request.overlapped, nullptr) == 0);
}

int StartRecvMsg(Stage& stage) {
    stage.message = {Plain(&stage.from), sizeof(stage.from), &stage.request.buffer, 1, {0, nullptr}, 0};
    const auto receive = Extension<LPFN_WSARECVMSG>(stage.subject, WSAID_WSARECVMSG);
    return ErrorOf(receive(stage.subject, &stage.message, nullptr, &stage.request.overlapped, nullptr) == 0);
}

int StartSend(Stage& stage) {
    stage.request.buffer.len = 5;
    return Send(stage.subject, stage.request);
}

int StartLongSend(Stage& stage) {
    stage.longBuffer.resize(kLongSend);
    stage.request.buffer = {kLongSend, stage.longBuffer.data()};
    return Send(stage.subject, stage.request);
}

int StartSendTo(Stage& stage) {
    stage.request.buffer.len = 5;
    return ErrorOf(WSASendTo(stage.subject, &stage.request.buffer, 1, nullptr, 0, Plain(&stage.otherName),
                             sizeof(stage.otherName), &stage.request.overlapped, nullptr) == 0);
}

int StartTransmitFile(Stage& stage) {
    stage.fileBuffers = {stage.head, 3, stage.tail, 2};
    const auto transmit = Extension<LPFN_TRANSMITFILE>(stage.subject, WSAID_TRANSMITFILE);
    return ErrorOf(transmit(stage.subject, nullptr, 0, 0, &stage.request.overlapped, &stage.fileBuffers, 0));
}

int StartTransmitPackets(Stage& stage) {
    stage.elements[0].dwElFlags = stage.elements[1].dwElFlags = TP_ELEMENT_MEMORY;
    stage.elements[0].cLength = 3;
    stage.elements[0].pBuffer = stage.head;
    stage.elements[1].cLength = 2;
    stage.elements[1].pBuffer = stage.tail;
    const auto transmit = Extension<LPFN_TRANSMITPACKETS>(stage.subject, WSAID_TRANSMITPACKETS);
    return ErrorOf(transmit(stage.subject, stage.elements, 2, 0, &stage.request.overlapped, 0));
}

int StartAcceptEx(Stage& stage) {
    const auto accept = Extension<LPFN_ACCEPTEX>(stage.subject, WSAID_ACCEPTEX);
    DWORD bytes = 0;
    return ErrorOf(
        accept(stage.subject, stage.other, stage.accepted, 16, 144, 144, &bytes, &stage.request.overlapped));
}

int StartConnectEx(Stage& stage) {
    return ConnectExTo(stage.subject, Ipv4("127.0.0.1", stage.listener.Port()), stage.head, 3,
                       &stage.request.overlapped);
}

int StartDisconnectEx(Stage& stage) {
    const auto disconnect = Extension<LPFN_DISCONNECTEX>(stage.subject, WSAID_DISCONNECTEX);
    return ErrorOf(disconnect(stage.subject, &stage.request.overlapped, 0, 0));
}

struct OperationRow {
    const char* name;
    void (Stage::*prepare)();
    int (*start)(Stage&);
    void (Stage::*satisfy)();  ///< what it waits for; null: for nothing
    DWORD bytes;
};

constexpr OperationRow kOperations[] = {
    {"ioctl", &Stage::Connect, StartIoctl, nullptr, 0},
    {"recv", &Stage::Connect, StartRecv, &Stage::PeerSends, 5},
    {"recvfrom", &Stage::Datagrams, StartRecvFrom, &Stage::DatagramArrives, 5},
    {"send", &Stage::Connect, StartSend, nullptr, 5},
    {"long send", &Stage::Connect, StartLongSend, &Stage::PeerReads, kLongSend},
    {"sendto", &Stage::Datagrams, StartSendTo, nullptr, 5},
    {"TransmitFile", &Stage::Connect, StartTransmitFile, nullptr, 5},
    {"AcceptEx", &Stage::Listen, StartAcceptEx, &Stage::ClientArrives, 5},
    {"ConnectEx", &Stage::Bind, StartConnectEx, nullptr, 3},
    {"DisconnectEx", &Stage::Connect, StartDisconnectEx, nullptr, 0},
    {"TransmitPackets", &Stage::Connect, StartTransmitPackets, nullptr, 5},
    {"WSARecvMsg", &Stage::Datagrams, StartRecvMsg, &Stage::DatagramArrives, 5},
};

/// A completion port of the application, on which every request is told.
class ApplicationPort {
  public:
    ApplicationPort() : port_(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)) {}
    ~ApplicationPort() { CloseHandle(port_); }
    ApplicationPort(const ApplicationPort&) = delete;
    ApplicationPort& operator=(const ApplicationPort&) = delete;

    void Associate(SOCKET s) {
        ASSERT_NE(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), port_, 7, 0), nullptr);
    }

    /// The next request that is told; null when none is within that time.
    WSAOVERLAPPED* Next(DWORD milliseconds) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, milliseconds);
        return overlapped;
    }

  private:
    HANDLE port_;
};

class OverlappedOperations : public OverlappedTest {
  protected:
    void SetUp() override {
        OverlappedTest::SetUp();
        platform::DisarmFaults();
    }

    static bool IsForeignPort() { return GetParam() == Mode::kForeignPort; }

    static void Prepare(Stage& stage, ApplicationPort& port, const OperationRow& row) {
        platform::DisarmFaults();
        (stage.*row.prepare)();
        port.Associate(stage.subject);
        if (IsForeignPort()) PutLowerSocketsOnAForeignPort();
        if (GetParam() == Mode::kEveryPacket)
            FailCall("SetFileCompletionNotificationModes", ERROR_INVALID_FUNCTION, true);
        if (GetParam() == Mode::kStrayPackets) QueueStrayPackets();
    }

    /// Takes the one telling of the stage's request, and its error.
    static DWORD ToldError(Stage& stage, ApplicationPort& port, DWORD* bytes) {
        EXPECT_EQ(port.Next(20000), &stage.request.overlapped);
        DWORD flags = 0;
        if (WSAGetOverlappedResult(stage.subject, &stage.request.overlapped, bytes, FALSE, &flags)) return 0;
        return static_cast<DWORD>(WSAGetLastError());
    }

    /// Nothing else is told, even when the layer has let go of everything.
    void ExpectNothingElse(ApplicationPort& port) {
        StopWinsock();
        EXPECT_EQ(port.Next(0), nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedOperations,
                         ::testing::Values(Mode::kCompletionPort, Mode::kEveryPacket, Mode::kStrayPackets,
                                           Mode::kAlertable, Mode::kForeignPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedOperations, WhatSucceedsAtOnceIsToldOnce) {
    ApplicationPort port;
    int succeeded = 0;
    for (const OperationRow& row : kOperations) {
        SCOPED_TRACE(row.name);
        Stage stage;
        Prepare(stage, port, row);
        if (row.satisfy != nullptr) (stage.*row.satisfy)();
        const int result = row.start(stage);
        // Whether the lower provider ends a request inside its call is for it to say.
        if (result == 0) ++succeeded;
        EXPECT_TRUE(WasTaken(result)) << result;
        DWORD bytes = 0;
        EXPECT_EQ(ToldError(stage, port, &bytes), 0u);
        EXPECT_EQ(bytes, row.bytes);
        platform::DisarmFaults();
    }
    EXPECT_EQ(succeeded > 0, IsForeignPort());
    ExpectNothingElse(port);
}

class OverlappedStrayPackets : public OverlappedOperations {};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedStrayPackets, ::testing::Values(Mode::kStrayPackets),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedStrayPackets, DoNotEndARequestOfAnotherSocket) {
    constexpr int kRounds = 5000;
    ApplicationPort port;
    Stage stream;
    stream.Connect();
    port.Associate(stream.subject);
    Stage datagrams;
    datagrams.Datagrams();
    port.Associate(datagrams.subject);
    QueueStrayPackets();
    int wrong = 0;
    for (int i = 0; i < kRounds; ++i) {
        DWORD bytes = 0;
        ASSERT_EQ(StartSend(stream), WSA_IO_PENDING);
        ASSERT_EQ(ToldError(stream, port, &bytes), 0u);
        datagrams.DatagramArrives();
        ASSERT_EQ(StartRecvFrom(datagrams), WSA_IO_PENDING);
        if (ToldError(datagrams, port, &bytes) != 0 || bytes != 5) ++wrong;
    }
    EXPECT_EQ(wrong, 0) << "of " << kRounds;
    ExpectNothingElse(port);
}

TEST_P(OverlappedOperations, WhatSucceedsLaterIsToldOnce) {
    ApplicationPort port;
    for (const OperationRow& row : kOperations) {
        if (row.satisfy == nullptr) continue;
        SCOPED_TRACE(row.name);
        Stage stage;
        Prepare(stage, port, row);
        ASSERT_EQ(row.start(stage), WSA_IO_PENDING);
        EXPECT_EQ(port.Next(0), nullptr);
        (stage.*row.satisfy)();
        DWORD bytes = 0;
        EXPECT_EQ(ToldError(stage, port, &bytes), 0u);
        EXPECT_EQ(bytes, row.bytes);
    }
    ExpectNothingElse(port);
}

TEST_P(OverlappedOperations, WhatIsPendingEndsWithItsSocket) {
    ApplicationPort port;
    for (const OperationRow& row : kOperations) {
        if (row.satisfy == nullptr) continue;
        SCOPED_TRACE(row.name);
        Stage stage;
        Prepare(stage, port, row);
        ASSERT_EQ(row.start(stage), WSA_IO_PENDING);
        EXPECT_EQ(closesocket(stage.subject), 0);
        stage.subject = INVALID_SOCKET;
        EXPECT_EQ(port.Next(20000), &stage.request.overlapped);
        EXPECT_EQ(stage.request.overlapped.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
    }
    ExpectNothingElse(port);
}

}  // namespace
