// The last clean-up and the end of the process with everything alive that the layer can have under way, and
// start-ups and clean-ups in the middle of traffic.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include "platform/testing/clock.h"
#include "tests/relay/split_fixture.h"
#include "tests/support/message_window.h"

namespace {

constexpr int kStatus = 7;

enum Alive : unsigned {
    kSplitConnection = 1,
    kPendingReceive = 2,
    kAwaitedVerdict = 4,
    kCollection = 8,
    kHiddenWindow = 16,
    kEverything = 31,
};
constexpr unsigned kRows[] = {kSplitConnection, kPendingReceive, kCollection, kHiddenWindow,
                              kEverything & ~kAwaitedVerdict};

class LifeCycle : public SplitFixture {
  protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        SplitFixture::SetUp();
        const ScriptedAnalyzer::Script others = Splitting(kInspect);
        analyzer_.SetScript([others](const SeenRequest& request, AnalyzerConnection& connection) {
            if (request.Destination() != std::string(kOther) + ":80") others(request, connection);
        });
    }

    /// Starts Winsock and brings to life what is asked for.
    void Bring(unsigned alive) {
        // Its title is asked for, and waited for, by the collection.
        Settings().windows.clear();
        if ((alive & kCollection) != 0) Settings().windows.push_back({"hung", true});
        StartWinsock();
        closesocket(StreamSocket());  // loads the layer
        if ((alive & kSplitConnection) != 0) {
            const SOCKET s = ConnectSplit(server_.emplace());
            ASSERT_TRUE(SendAll(s, "ping"));
            ASSERT_EQ(ReadText(*server_, 4), "ping");
        }
        if ((alive & kPendingReceive) != 0) {
            const SOCKET s = StreamSocket();
            ASSERT_EQ(Connect(s, Ipv4("127.0.0.1", origin_.Port())), 0);
            ASSERT_TRUE(origin_.Accept(direct_.emplace()));
            DWORD flags = 0;
            request_ = {};
            ASSERT_EQ(WSARecv(s, &buffer_, 1, nullptr, &flags, &request_, nullptr), SOCKET_ERROR);
            ASSERT_EQ(WSAGetLastError(), WSA_IO_PENDING);
        }
        if ((alive & kAwaitedVerdict) != 0) {
            const std::size_t asked = analyzer_.Requests().size();
            waiter_ = std::async(std::launch::async,
                                 [s = StreamSocket()] { return Connect(s, Ipv4(kOther, kPort)); });
            ASSERT_TRUE(analyzer_.WaitForRequests(asked + 1));
        }
        if ((alive & kHiddenWindow) != 0) {
            ASSERT_EQ(
                WSAAsyncSelect(StreamSocket(), window_.handle(), MessageWindow::kMessage, FD_ALL_EVENTS), 0);
        }
    }

    /// After a clean-up: whoever waited has been told.
    void ExpectOver() {
        if (waiter_.valid()) {
            EXPECT_NE(waiter_.get(), 0);
        }
        if (direct_) {
            EXPECT_NE(request_.Internal, 0x103u) << "the receive is still under way";
        }
        server_.reset();
        direct_.reset();
    }

    [[noreturn]] void ExitWith(unsigned alive) {
        Bring(alive);
        if (HasFailure()) std::abort();
        std::filesystem::remove_all(Settings().commonAppData);  // no fixture is taken down
        std::exit(kStatus);
    }

  private:
    MessageWindow window_;
    std::optional<LoopbackStream> server_;
    std::optional<LoopbackStream> direct_;
    std::future<int> waiter_;
    char byte_ = 0;
    WSABUF buffer_ = {1, &byte_};
    WSAOVERLAPPED request_ = {};
};

TEST_F(LifeCycle, TheLastCleanUpEndsWhateverIsAlive) {
    const auto endWith = [&](unsigned alive) {
        SCOPED_TRACE(alive);
        ASSERT_NO_FATAL_FAILURE(Bring(alive));
        StopWinsock();
        ExpectOver();
    };
    platform::ResourceCounts before = platform::CountResources();
    for (int round = 0; round < 5; ++round) {
        for (const unsigned alive : kRows) {
            ASSERT_NO_FATAL_FAILURE(endWith(alive));
            ASSERT_EQ(platform::SettleTo(before), "") << alive;
        }
    }
    ASSERT_NO_FATAL_FAILURE(endWith(kEverything));
    // The library stays for the thread that the clean-up has found in a call.
    const platform::ResourceCounts after = platform::CountResources();
    before.modules = after.modules;
    before.tlsSlots = after.tlsSlots;
    before.criticalSections = after.criticalSections;
    EXPECT_EQ(platform::SettleTo(before), "");
    ExpectLeftovers();
}

TEST_F(LifeCycle, AProgramEndsWithWhateverIsAlive) {
    for (const unsigned alive :
         {unsigned{kAwaitedVerdict}, unsigned{kEverything}, unsigned{kSplitConnection}}) {
        EXPECT_EXIT(ExitWith(alive), ::testing::ExitedWithCode(kStatus), "") << alive;
    }
}

TEST_F(LifeCycle, StartUpsAndCleanUpsOfManyThreadsMeetTraffic) {
    constexpr int kThreads = 100;
    constexpr int kUsers = 4;
    ApplyMachine();
    std::atomic<bool> over{false};
    std::atomic<int> connected{0};
    auto server = std::async(std::launch::async, [&] {
        LoopbackStream stream;
        while (origin_.Accept(stream))
            continue;
    });
    std::vector<std::future<void>> users;
    for (int i = 0; i < kUsers; ++i) {
        users.push_back(std::async(std::launch::async, [&, isSplit = i % 2 == 0] {
            while (!over) {
                const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
                const sockaddr_in name = isSplit ? Ipv4(kPublic, kPort) : Ipv4("127.0.0.1", origin_.Port());
                if (Connect(s, name) == 0) ++connected;
                send(s, "ping", 4, 0);
                closesocket(s);
            }
        }));
    }
    std::vector<std::future<void>> starters;
    for (int i = 0; i < kThreads; ++i) {
        starters.push_back(std::async(std::launch::async, [&] {
            for (int round = 0; round < 3; ++round) {
                WSADATA data{};
                ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
                const int seen = connected;
                for (int wait = 0; wait < 1000 && connected == seen; ++wait)
                    std::this_thread::yield();
                ASSERT_EQ(WSACleanup(), 0);
            }
        }));
    }
    for (auto& starter : starters)
        starter.get();
    over = true;
    for (auto& user : users)
        user.get();
    EXPECT_GT(connected, 0);
    origin_.Interrupt();
    server.get();
    EXPECT_EQ(WSACleanup(), SOCKET_ERROR);
    // A clean-up that meets a call of another thread's does.
    AllowTheLayerToStay();
}

}  // namespace
