// Sockets from their making to their end, and what a clean-up leaves to calls that it overtakes.
#include <future>
#include <thread>

#include "base/layer_call.h"
#include "platform/kernel/fault_points.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

class SocketLife : public FakeWinsock {
  protected:
    /// The error of a socket that can't be made, or 0.
    int ErrorOfSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info = nullptr) {
        const SOCKET s = WSPSocket(family, type, protocol, info, 0, 0, &error_);
        if (s != INVALID_SOCKET) Close(s);
        return ErrorOf(s != INVALID_SOCKET);
    }
};

TEST_F(SocketLife, EntryIsChosenByWhatTheApplicationSays) {
    WSAPROTOCOL_INFOW foreignFlags = Entry(SOCK_STREAM).LayerProvider;
    foreignFlags.dwServiceFlags1 ^= XP1_CONNECT_DATA;
    WSAPROTOCOL_INFOW handleFlags = Entry(SOCK_STREAM).LayerProvider;
    handleFlags.dwServiceFlags1 ^= XP1_IFS_HANDLES;
    struct {
        int family, type, protocol, expected;
        LPWSAPROTOCOL_INFOW info;
    } const cases[] = {
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, nullptr},
        {AF_INET, SOCK_STREAM, 0, 0, nullptr},
        {AF_UNSPEC, SOCK_DGRAM, IPPROTO_UDP, 0, nullptr},
        {AF_UNSPEC, SOCK_STREAM, 0, 0, nullptr},
        {AF_INET, SOCK_RAW, IPPROTO_ICMP, 0, nullptr},
        {AF_APPLETALK, SOCK_STREAM, IPPROTO_TCP, WSAEAFNOSUPPORT, nullptr},
        {AF_INET, SOCK_SEQPACKET, 0, WSAESOCKTNOSUPPORT, nullptr},
        {AF_INET, SOCK_STREAM, 99, WSAEPROTONOSUPPORT, nullptr},
        {AF_UNSPEC, SOCK_STREAM, IPPROTO_UDP, WSAEPROTOTYPE, nullptr},
        {AF_INET, SOCK_STREAM, IPPROTO_UDP, WSAEAFNOSUPPORT, nullptr},
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, &handleFlags},
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, WSAEAFNOSUPPORT, &foreignFlags},
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, WSAEFAULT, reinterpret_cast<LPWSAPROTOCOL_INFOW>(8)},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(ErrorOfSocket(row.family, row.type, row.protocol, row.info), row.expected)
            << row.family << " " << row.type << " " << row.protocol;
    }
}

TEST_F(SocketLife, NewSocketRecordsWhatWasAskedAndGoesDownOverlapped) {
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    info.dwProviderReserved = 4711;
    const SOCKET s =
        WSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, &info, 3, WSA_FLAG_MULTIPOINT_C_ROOT, &error_);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(Fake().socketFlags, static_cast<DWORD>(WSA_FLAG_MULTIPOINT_C_ROOT | WSA_FLAG_OVERLAPPED));
    EXPECT_EQ(Fake().socketInfo.dwCatalogEntryId, Entry(SOCK_STREAM).NextProvider.dwCatalogEntryId);
    EXPECT_EQ(Fake().socketInfo.dwProviderReserved, 4711u);
    EXPECT_EQ(Fake().handleEntry, Entry(SOCK_STREAM).LayerProvider.dwCatalogEntryId);
    SocketContext* const context = ContextOf(s);
    EXPECT_EQ(context->SocketFlags, static_cast<DWORD>(WSA_FLAG_MULTIPOINT_C_ROOT));
    EXPECT_EQ(context->SocketGroup, 3u);
    EXPECT_FALSE(context->Own);
    EXPECT_EQ(FindSocketContextByProviderSocket(nullptr, context->ProviderSocket), context);
    EXPECT_EQ(FindSocketContextByProviderSocket(&Entry(SOCK_DGRAM), context->ProviderSocket), nullptr);
    Close(s);

    // A layered lower provider is told what the application said, or its own entry when it said nothing.
    Entry(SOCK_STREAM).NextProvider.ProtocolChain.ChainLen = 2;
    Close(WSPSocket(AF_INET, SOCK_STREAM, 0, &info, 0, 0, &error_));
    EXPECT_EQ(Fake().socketInfo.dwCatalogEntryId, info.dwCatalogEntryId);
    Close(WSPSocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0, &error_));
    EXPECT_EQ(Fake().socketInfo.dwCatalogEntryId, Entry(SOCK_STREAM).NextProvider.dwCatalogEntryId);

    const SOCKET v6 = WSPSocket(AF_INET6, SOCK_STREAM, 0, nullptr, 0, 0, &error_);
    EXPECT_TRUE(ContextOf(v6)->Own) << "only IPv4 is intercepted";
    Close(v6);
}

TEST_F(SocketLife, WhatTheApplicationLeavesOpenIsTheChosenEntrys) {
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    constexpr int kFromInfo = FROM_PROTOCOL_INFO;
    struct {
        int family, type, protocol;
        LPWSAPROTOCOL_INFOW info;
    } const cases[] = {
        {AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP, nullptr},
        {AF_INET, SOCK_STREAM, 0, nullptr},
        {AF_INET, 0, IPPROTO_TCP, &info},
        {kFromInfo, kFromInfo, kFromInfo, &info},
        {0, 0, 0, &info},
    };
    for (const auto& row : cases) {
        const SOCKET s = WSPSocket(row.family, row.type, row.protocol, row.info, 0, 0, &error_);
        ASSERT_NE(s, INVALID_SOCKET) << row.family << " " << row.type << " " << row.protocol;
        SocketContext* const context = ContextOf(s);
        EXPECT_EQ(context->AddressFamily, AF_INET);
        EXPECT_EQ(context->SocketType, SOCK_STREAM);
        EXPECT_EQ(context->SocketProtocol, IPPROTO_TCP);
        EXPECT_FALSE(IsSocketExempt(context)) << "it would never be asked about";
        Close(s);
    }
}

TEST_F(SocketLife, AThreadThatGuessesANewHandleFindsItsSocketWhole) {
    SOCKET guessed = INVALID_SOCKET;
    int typeAtVerdict = -1;
    Fake().verdict = [&](SocketContext* context, ConnectTarget*) {
        typeAtVerdict = context->SocketType;
        EXPECT_EQ(context->LayeredSocket, guessed);
        return true;
    };
    const auto onOtherThread = [](auto action) { std::thread(action).join(); };
    Fake().handleMade = [&](SOCKET s) {
        guessed = s;
        onOtherThread([s] {
            const sockaddr_in name = MakeAddress("203.0.113.10", 80);
            INT error = 0;
            WSPConnect(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr, nullptr, nullptr,
                       nullptr, &error);
        });
    };
    Close(MakeSocket());
    EXPECT_EQ(typeAtVerdict, SOCK_STREAM);

    // It may close it, too: the handle goes back when whoever made it has let go.
    Fake().handleMade = [&](SOCKET s) {
        onOtherThread([s] { Close(s); });
        EXPECT_EQ(Fake().handles.count(s), 1u);
    };
    const SOCKET closed = MakeSocket();
    EXPECT_EQ(Fake().handles.count(closed), 0u);
    EXPECT_EQ(ErrorOf(WSPCloseSocket(closed, &error_) == 0), WSAENOTSOCK);
}

TEST_F(SocketLife, TheApplicationHasNoSocketOfTheLayers) {
    LayerCall::AllocateSlot();
    SOCKET own = INVALID_SOCKET;
    {
        const LayerCall call(LayerCall::Kind::kMakesSocket);
        own = MakeSocket();
    }
    EXPECT_TRUE(IsSocketExempt(ContextOf(own))) << "from its beginning";
    const sockaddr_in name = MakeAddress("203.0.113.10", 80);
    EXPECT_EQ(ErrorOf(WSPConnect(own, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr,
                                 nullptr, nullptr, nullptr, &error_) == 0),
              WSAENOTSOCK)
        << "a closed handle of the application's with the same value";
    EXPECT_EQ(ErrorOf(WSPCloseSocket(own, &error_) == 0), WSAENOTSOCK);
    EXPECT_TRUE(Fake().connected.empty());
    {
        const LayerCall outer;
        const SOCKET applications = MakeSocket();
        EXPECT_FALSE(IsSocketExempt(ContextOf(applications))) << "made by a routine of the application's";
        Close(applications);
        SetLastError(4711);
        const LayerCall inner;
        EXPECT_EQ(GetLastError(), 4711u);
        Close(own);
    }
    EXPECT_FALSE(LayerCall::IsUnderWay());
    LayerCall::FreeSlot();
}

TEST_F(SocketLife, FailuresAfterTheLowerSocketCloseIt) {
    Fake().createHandleError = WSAEMFILE;
    EXPECT_EQ(ErrorOfSocket(AF_INET, SOCK_STREAM, 0), WSAEMFILE);
    Fake().createHandleError = 0;
    {
        const platform::ScopedFault noMemory({"HeapAlloc"});
        EXPECT_EQ(ErrorOfSocket(AF_INET, SOCK_STREAM, 0), WSAENOBUFS);
    }
    EXPECT_EQ(Fake().closed, (std::vector<SOCKET>{0x5000, 0x5001}));

    const SOCKET listener = MakeSocket();
    Lower().lpWSPAccept =
        Callback([](SOCKET, sockaddr*, LPINT, LPCONDITIONPROC, DWORD_PTR, LPINT) { return SOCKET{0x6000}; });
    Fake().createHandleError = WSAEMFILE;
    EXPECT_EQ(WSPAccept(listener, nullptr, nullptr, nullptr, 0, &error_), INVALID_SOCKET);
    EXPECT_EQ(error_, WSAEMFILE);
    EXPECT_EQ(Fake().closed.back(), 0x6000u);
    Fake().createHandleError = 0;

    ContextOf(listener)->AsyncWindow = reinterpret_cast<HWND>(0x1234);
    ContextOf(listener)->AsyncMessage = 1234;
    const SOCKET accepted = WSPAccept(listener, nullptr, nullptr, nullptr, 0, &error_);
    EXPECT_EQ(ContextOf(accepted)->AsyncWindow, reinterpret_cast<HWND>(0x1234));
    EXPECT_EQ(ContextOf(accepted)->AsyncMessage, 1234u)
        << "an accepted socket reports to its listener's window";
    Close(accepted);
    Close(listener);
}

TEST_F(SocketLife, CloseWaitsForOtherUsers) {
    const SOCKET s = MakeSocket();
    SocketContext* const context = FindAndRefSocketContext(s, &error_);
    EXPECT_EQ(WSPCloseSocket(s, &error_), 0);
    EXPECT_EQ(Fake().closed.size(), 1u) << "the lower socket goes at once";
    EXPECT_EQ(Fake().handles.count(s), 1u) << "the application's handle with the last user";
    EXPECT_EQ(ErrorOf(WSPCloseSocket(s, &error_) == 0), WSAENOTSOCK) << "it is closed only once";
    DerefSocketContext(context, &error_);
    EXPECT_EQ(Fake().handles.count(s), 0u);
    EXPECT_EQ(ErrorOf(WSPCloseSocket(s, &error_) == 0), WSAENOTSOCK);

    const SOCKET busy = MakeSocket();
    SocketContext* const pending = ContextOf(busy);
    ASSERT_TRUE(AcquireSocketLock(pending));
    pending->OutstandingAsync = 1;
    ReleaseSocketLock(pending);
    EXPECT_EQ(WSPCloseSocket(busy, &error_), 0);
    EXPECT_EQ(Fake().handles.count(busy), 1u) << "an overlapped request is still under way";
    FindAndRefSocketContext(busy, &error_);
    pending->OutstandingAsync = 0;
    DerefSocketContext(pending, &error_);
    EXPECT_EQ(Fake().handles.count(busy), 0u);

    const SOCKET lingering = MakeSocket();
    for (const bool inUse : {false, true}) {
        SocketContext* const user = inUse ? FindAndRefSocketContext(lingering, &error_) : nullptr;
        Fake().closeError = WSAEWOULDBLOCK;
        EXPECT_EQ(ErrorOf(WSPCloseSocket(lingering, &error_) == 0), WSAEWOULDBLOCK) << inUse;
        EXPECT_EQ(ErrorOf(WSPCloseSocket(lingering, &error_) == 0), WSAEWOULDBLOCK)
            << "the application may try again";
        DerefSocketContext(user, &error_);
        EXPECT_EQ(Fake().handles.count(lingering), 1u);
    }
    Fake().closeError = 0;
    Close(lingering);
}

TEST_F(SocketLife, ConcurrentUseAndCloseNeverMeetAFreedContext) {
    Lower().lpWSPShutdown = Callback([](SOCKET, int, LPINT) { return 0; });
    for (int round = 0; round < 200; ++round) {
        const SOCKET s = MakeSocket();
        std::vector<std::thread> users;
        users.reserve(3);
        for (int user = 0; user < 3; ++user) {
            users.emplace_back([s] {
                INT error = 0;
                for (int i = 0; i < 50 && WSPShutdown(s, SD_SEND, &error) == 0; ++i) {
                }
            });
        }
        INT error = 0;
        EXPECT_EQ(WSPCloseSocket(s, &error), 0);
        for (std::thread& user : users)
            user.join();
        EXPECT_EQ(Fake().handles.count(s), 0u) << "the last of them gave the handle back";
    }
}

std::promise<void>* Entered = nullptr;
std::shared_future<void>* Leave = nullptr;

TEST_F(SocketLife, CleanUpLeavesToACallUnderWayWhatItUses) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    Entered = &entered;
    Leave = &left;
    Lower().lpWSPListen = Callback([](SOCKET, int, LPINT) {
        Entered->set_value();
        Leave->wait();
        return 0;
    });
    const SOCKET s = MakeSocket();
    const SOCKET idle = MakeSocket();
    std::thread inside([s] {
        INT error = 0;
        EXPECT_EQ(WSPListen(s, 1, &error), 0);
    });
    entered.get_future().wait();
    EXPECT_FALSE(FreeCatalog());
    EXPECT_EQ(Fake().closed.size(), 2u);
    EXPECT_TRUE(Fake().handles.empty());
    EXPECT_EQ(platform::CountResources().heaps, 1) << "the call still has a context in there";
    leave.set_value();
    inside.join();
    EXPECT_EQ(platform::CountResources().heaps, 0);
    EXPECT_EQ(ErrorOf(WSPShutdown(idle, SD_BOTH, &error_) == 0), WSAENOTSOCK);
    EXPECT_EQ(ErrorOfSocket(AF_INET, SOCK_STREAM, 0), WSAEAFNOSUPPORT) << "nothing serves sockets any more";
}

TEST_F(SocketLife, SocketMadeDuringCleanUpIsRefused) {
    Lower().lpWSPSocket = Callback([](int, int, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD, LPINT) {
        EXPECT_FALSE(FreeCatalog());
        return SOCKET{0x5100};
    });
    EXPECT_EQ(ErrorOfSocket(AF_INET, SOCK_STREAM, 0), WSANOTINITIALISED);
    EXPECT_EQ(Fake().closed, (std::vector<SOCKET>{0x5100}));
}

TEST_F(SocketLife, LowerProviderThatRaisesFailsTheCallAndHoldsNothing) {
    Lower().lpWSPListen = Callback([](SOCKET, int, LPINT) -> int {
        EXPECT_EQ(TlsGetValue(ThreadSlot), ContextOf(0x1000)->Provider)
            << "the slot names the provider being called";
        RaiseException(0xC0000005, 0, 0, nullptr);
        return 0;
    });
    const SOCKET s = MakeSocket();
    EXPECT_EQ(ErrorOf(WSPListen(s, 1, &error_) == 0), WSAEFAULT);
    EXPECT_EQ(TlsGetValue(ThreadSlot), nullptr);
    EXPECT_EQ(ContextOf(s)->RefCount, 0);
    Close(s);
}

TEST_F(SocketLife, ACancelThatRaisesLeavesTheCallThatItWasToCancel) {
    Lower().lpWSPCancelBlockingCall = Callback([](LPINT) -> int {
        RaiseException(0xC0000005, 0, 0, nullptr);
        return 0;
    });
    Lower().lpWSPListen = Callback([](SOCKET, int, LPINT) {
        INT error = 0;
        EXPECT_EQ(WSPCancelBlockingCall(&error), SOCKET_ERROR);
        EXPECT_EQ(error, WSAEFAULT);
        EXPECT_NE(TlsGetValue(ThreadSlot), nullptr);
        return 0;
    });
    const SOCKET s = MakeSocket();
    EXPECT_EQ(WSPListen(s, 1, &error_), 0);
    EXPECT_EQ(WSPCancelBlockingCall(&error_), 0) << "nothing to cancel";
    Close(s);
}

}  // namespace
