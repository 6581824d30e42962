// Messages over real sockets: pieces, silence, trickles, foreign answers, failing and faulting calls.
#include "messages/message_transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "messages/buffer_arena.h"
#include "messages/message_pool.h"
#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/debug_output.h"
#include "tests/messages/frame_tools.h"

namespace {

constexpr std::uint32_t kRequestId = 42;

int CallsOf(const std::string& function) {
    const std::vector<std::string> calls = platform::CountedCalls();
    return static_cast<int>(std::count(calls.begin(), calls.end(), function));
}

/// A connected pair: `ours` is the layer's end, `peer` the analyzer's.
class MessageTransport : public ::testing::Test {
  protected:
    void SetUp() override {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
        const SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int length = sizeof(address);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        ours = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        ASSERT_EQ(connect(ours, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        peer = accept(listener, nullptr, nullptr);
        ASSERT_NE(peer, INVALID_SOCKET);
        closesocket(listener);
    }

    void TearDown() override {
        platform::DisarmFaults();
        closesocket(ours);
        if (peer != INVALID_SOCKET) closesocket(peer);
        WSACleanup();
        DestroyMessagePool();
        DestroyBufferArena();
    }

    void PeerSends(const Bytes& bytes) {
        ASSERT_EQ(send(peer, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), 0),
                  static_cast<int>(bytes.size()));
    }

    void PeerCloses() {
        closesocket(peer);
        peer = INVALID_SOCKET;
    }

    SOCKET ours = INVALID_SOCKET;
    SOCKET peer = INVALID_SOCKET;
};

TEST_F(MessageTransport, AMessageArrivesAsItWasSentInOneCall) {
    PooledRequest request = TakeRequest();
    Bytes data(30000, 'x');
    const BufferPiece pieces[] = {{10000, data.data()}, {20000, data.data() + 10000}};
    request->SetDataBuffers(pieces, 2, 0, false);
    request->UserName = "somebody";
    platform::CountCalls();
    bool completed = false;
    ASSERT_TRUE(SendMessage(*request, ours, nullptr, &completed));
    EXPECT_TRUE(completed);
    EXPECT_EQ(CallsOf("WSASend"), 1);
    platform::DisarmFaults();

    LSPAnalyzerMessage received;
    ASSERT_TRUE(ReceiveMessage(received, peer, nullptr, 5));
    EXPECT_EQ(received.DataLength, 30000);
    EXPECT_EQ(received.UserName, "somebody");
}

TEST_F(MessageTransport, ReadsAreSizedToTheFrameAndTakeNothingBehindIt) {
    const struct {
        std::uint32_t dataLength;
        int reads;
    } cases[] = {{0, 2}, {10000 - 156, 4}, {4096 - 148, 2}};
    for (const auto& expected : cases) {
        Bytes two = ResponseFrame(1, expected.dataLength);
        const Bytes next = ResponseFrame(2);
        two.insert(two.end(), next.begin(), next.end());
        PeerSends(two);
        PooledResponse first = TakeResponse();
        platform::CountCalls();
        ASSERT_TRUE(ReceiveMessage(*first, ours, nullptr, 5));
        EXPECT_EQ(CallsOf("WSARecv"), expected.reads);
        platform::DisarmFaults();
        EXPECT_EQ(first->RequestId, 1u);
        EXPECT_EQ(first->DataLength, static_cast<std::int32_t>(expected.dataLength));
        PooledResponse second = TakeResponse();
        ASSERT_TRUE(ReceiveMessage(*second, ours, nullptr, 5));
        EXPECT_EQ(second->RequestId, 2u);
    }
}

TEST_F(MessageTransport, ShortReadsAddUp) {
    PeerSends(ResponseFrame(1));
    platform::ArmFault({"WSARecv", 1, platform::FaultKind::kShortCount, 3, false});
    PooledResponse response = TakeResponse();
    ASSERT_TRUE(ReceiveMessage(*response, ours, nullptr, 5));
    EXPECT_EQ(CallsOf("WSARecv"), 3) << "3 bytes, 1 to know the length, the rest";
    platform::DisarmFaults();

    // What a short read leaves is asked for at once, as far as one read goes.
    PeerSends(ResponseFrame(1, 8 + 3 + kMaxReadSize - 156));
    platform::ArmFault({"WSARecv", 2, platform::FaultKind::kShortCount, 3, false});
    PooledResponse resumed = TakeResponse();
    ASSERT_TRUE(ReceiveMessage(*resumed, ours, nullptr, 5));
    EXPECT_EQ(CallsOf("WSARecv"), 3) << "the length words, 3 bytes, the rest";
    platform::DisarmFaults();

    // Single bytes must not cost a large buffer each.
    static std::uint64_t allocated;
    allocated = 0;
    LSPAnalyzerMessageResponse large(
        [](std::uint32_t size) {
            allocated += size;
            return new unsigned char[size];
        },
        nullptr);
    PeerSends(ResponseFrame(1, 20000));
    platform::ArmFault({"WSARecv", 1, platform::FaultKind::kShortCount, 1, true});
    ASSERT_TRUE(ReceiveMessage(large, ours, nullptr, 5));
    EXPECT_EQ(large.DataLength, 20000);
    EXPECT_LT(allocated, 2 * 20156u);
}

TEST_F(MessageTransport, UnreadableFramesAndEndsFailAtOnce) {
    const auto failsOn = [this](Bytes bytes, int reads) {
        PeerSends(bytes);
        PooledResponse response = TakeResponse();
        platform::CountCalls();
        EXPECT_FALSE(ReceiveMessage(*response, ours, nullptr, 5));
        EXPECT_EQ(CallsOf("WSARecv"), reads);
        EXPECT_EQ(response->GetTotalLength(), 0u);
        platform::DisarmFaults();
    };
    for (std::uint32_t total : {0u, 7u, 0x01000001u, 0x7fffffffu, 0x80000000u, 0xfffffff0u, 0xffffffffu}) {
        SCOPED_TRACE(total);
        Bytes header(8, 0);
        SetWord(header, 0, total);
        failsOn(header, 1);
    }
    Bytes noFields(8, 0);
    SetWord(noFields, 0, 8);
    SetWord(noFields, 4, 8);
    failsOn(noFields, 1);

    Bytes cut = ResponseFrame(1);
    cut.pop_back();
    PeerSends(cut);
    PeerCloses();
    PooledResponse response = TakeResponse();
    EXPECT_FALSE(ReceiveMessage(*response, ours, nullptr, 5));
}

TEST_F(MessageTransport, ALengthThatIsNoneIsKnownFromItsWordAlone) {
    Bytes word(4);
    SetWord(word, 0, 7);
    PeerSends(word);
    PeerCloses();
    PooledResponse response = TakeResponse();
    platform::CountCalls();
    EXPECT_FALSE(ReceiveMessage(*response, ours, nullptr, 5));
    EXPECT_EQ(CallsOf("WSARecv"), 1) << "nothing more is waited for";
}

/// The tick count passes its end meanwhile.
TEST_F(MessageTransport, ATrickleEndsWithTheWholeWait) {
    const platform::ScopedClockRate fast(200);
    platform::AdvanceClock(0 - GetTickCount() - kDirectWaitMilliseconds / 2);
    const std::uint32_t start = GetTickCount();
    Atomic<bool> done{false};
    std::size_t sent = 0;
    std::thread trickle([&] {
        const Bytes frame = ResponseFrame(kRequestId);
        while (!done && sent < frame.size()) {
            PeerSends(Bytes(1, frame[sent++]));
            Sleep(1000);
        }
    });
    LSPAnalyzerMessageResponse response;
    AnswerLimits limits;
    limits.maxTimeouts = 0;
    EXPECT_FALSE(ReceiveAnswer(response, ours, kRequestId, limits));
    EXPECT_GE(GetTickCount() - start, kDirectWaitMilliseconds);
    done = true;
    trickle.join();
    EXPECT_LT(sent, ResponseFrame(kRequestId).size());
}

TEST_F(MessageTransport, OnlyTheAnswerToTheRequestIsTaken) {
    const platform::DebugOutputCapture output;
    LSPAnalyzerMessageResponse response;
    PeerSends(ResponseFrame(7, 5000));
    PeerSends(ResponseFrame(kRequestId ^ 0x10000));
    PeerSends(ResponseFrame(kRequestId));
    PeerSends(ResponseFrame(9));
    PeerSends(ResponseFrame(0));
    ASSERT_TRUE(ReceiveAnswer(response, ours, kRequestId));
    EXPECT_EQ(response.RequestId, kRequestId);
    EXPECT_EQ(response.DataLength, 0);
    EXPECT_TRUE(output.Contains("ERROR:Skipped an answer to request"));
    response.ReleaseBuffers();
    ASSERT_TRUE(ReceiveAnswer(response, ours, kRequestId));
    EXPECT_EQ(response.RequestId, 0u);

    Bytes insideHeader = ResponseFrame(kRequestId, 20);
    SetWord(insideHeader, 4, 4);
    SetWord(insideHeader, 8, kRequestId);  // where its RequestId would then be
    PeerSends(insideHeader);
    EXPECT_FALSE(ReceiveAnswer(response, ours, kRequestId));

    // Foreign answers don't renew the wait.
    const platform::ScopedClockRate fast(1000);
    PeerSends(ResponseFrame(7));
    EXPECT_FALSE(ReceiveAnswer(response, ours, kRequestId));

    const Atomic<bool> stop{true};
    AnswerLimits limits;
    limits.maxTimeouts = 0;
    limits.totalMilliseconds = 0;
    limits.stop = &stop;
    EXPECT_FALSE(ReceiveAnswer(response, ours, kRequestId, limits));
}

TEST_F(MessageTransport, FailingCallsKeepTheirErrorAndFaultsBecomeOne) {
    const struct {
        platform::FaultKind kind;
        DWORD value;
        bool overlapped;
        bool sent;
        int error;
    } sends[] = {
        {platform::FaultKind::kError, WSAECONNRESET, false, false, WSAECONNRESET},
        {platform::FaultKind::kError, WSA_IO_PENDING, false, false, WSA_IO_PENDING},
        {platform::FaultKind::kError, WSA_IO_PENDING, true, true, WSA_IO_PENDING},
        {platform::FaultKind::kError, WSAEWOULDBLOCK, true, true, WSAEWOULDBLOCK},
        {platform::FaultKind::kException, EXCEPTION_ACCESS_VIOLATION, true, false, WSAEFAULT},
    };
    for (const auto& expected : sends) {
        LSPAnalyzerMessage request;
        WSAOVERLAPPED overlapped{};
        bool completed = true;
        const platform::ScopedFault fault({"WSASend", 1, expected.kind, expected.value, false});
        EXPECT_EQ(SendMessage(request, ours, expected.overlapped ? &overlapped : nullptr, &completed),
                  expected.sent);
        EXPECT_EQ(WSAGetLastError(), expected.error);
        EXPECT_EQ(completed, !expected.sent) << "cleared only when the send is pending";
    }
    platform::DebugOutputCapture output;
    LSPAnalyzerMessage request;
    EXPECT_FALSE(SendMessage(request, INVALID_SOCKET));
    struct : LSPAnalyzerMessage {
        bool Serialize() override { throw std::bad_alloc(); }
    } throwing;
    EXPECT_FALSE(SendMessage(throwing, ours));
    EXPECT_TRUE(output.Contains("Failed to send an LSP messsage. Unknown error."));

    const struct {
        const char* function;
        platform::FaultKind kind;
        DWORD value;
        const char* line;
    } receives[] = {
        {"select", platform::FaultKind::kError, WSAENETDOWN, "during a select function. Error=10050"},
        {"WSARecv", platform::FaultKind::kError, WSAECONNRESET, "Error = 10054"},
        {"WSARecv", platform::FaultKind::kException, EXCEPTION_ACCESS_VIOLATION,
         "WSARecv EXCEPTION in thread: "},
    };
    PeerSends(ResponseFrame(1));
    for (const auto& failure : receives) {
        const platform::ScopedFault fault({failure.function, 1, failure.kind, failure.value, false});
        PooledResponse response = TakeResponse();
        EXPECT_FALSE(ReceiveMessage(*response, ours, nullptr, 5));
        EXPECT_TRUE(output.Contains(failure.line)) << failure.line;
    }
    PooledResponse response = TakeResponse();
    EXPECT_TRUE(ReceiveMessage(*response, ours, nullptr, 5)) << "no byte was lost";
}

}  // namespace
