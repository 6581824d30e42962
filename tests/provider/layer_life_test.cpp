// The loaded layer from its first start-up to its last clean-up, or to being unloaded before: what its lower
// provider is told, and when the library may go.
#include <chrono>
#include <future>
#include <thread>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/provider/loaded_layer.h"
#include "tests/support/loader_lock.h"
#include "tests/support/scripted_layer_fixture.h"

namespace {

using Op = ProviderOperation;

class LayerLife : public ScriptedLayerFixture {
  protected:
    /// With the layer loaded and not yet started.
    void LoadAbove(int chainLength) {
        StartAbove(chainLength);
        if (IsLoaded()) GTEST_SKIP() << "another test of this process had to leave it loaded";
        tcp_ = EntryOf(SOCK_STREAM);
        udp_ = EntryOf(SOCK_DGRAM);
        layer_.emplace(Settings().layer);
        startup_ = layer_->Export<LPWSPSTARTUP>("WSPStartup");
        ASSERT_NE(startup_, nullptr);
    }
    void TearDown() override {
        layer_.reset();
        ScriptedLayerFixture::TearDown();
    }

    int StartLayer(int type = SOCK_STREAM) {
        WSPDATA data{};
        WSAPROTOCOL_INFOW info = type == SOCK_STREAM ? tcp_ : udp_;
        return startup_(MAKEWORD(2, 2), &data, &info, Upcalls(), &table_);
    }
    int CleanUp() {
        INT error = 0;
        return table_.lpWSPCleanup(&error) == 0 ? 0 : error;
    }
    SOCKET MakeSocket() {
        INT error = 0;
        const SOCKET s = table_.lpWSPSocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0, &error);
        EXPECT_NE(s, INVALID_SOCKET) << error;
        return s;
    }

    bool IsLoaded() { return GetModuleHandleA(Settings().layer.c_str()) != nullptr; }

    /// Lower sockets that were told to end without lingering.
    int HardCloses() {
        const LINGER hard = {1, 0};
        int count = 0;
        for (const ProviderCallRecord& call : Provider().Calls(Op::kSetSockOpt)) {
            count += call.value == SO_LINGER &&
                             call.data == std::string(reinterpret_cast<const char*>(&hard), sizeof(hard))
                         ? 1
                         : 0;
        }
        return count;
    }
    int Closes() { return static_cast<int>(Provider().Calls(Op::kCloseSocket).size()); }

    /// With the last reference: that may be the one of the thread that collects the process's identity, or
    /// of the overlapped workers, which keep the library until they have begun.
    void ExpectLibraryGoes() {
        layer_->Unload();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (IsLoaded() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_FALSE(IsLoaded());
    }

    /// Nobody could tell when the last instruction of the library has been executed.
    void ExpectLibraryStays() {
        layer_->Unload();
        EXPECT_TRUE(IsLoaded());
        ExpectLeftovers();
    }

    std::optional<LoadedLayer> layer_;
    LPWSPSTARTUP startup_ = nullptr;
    WSAPROTOCOL_INFOW tcp_{};
    WSAPROTOCOL_INFOW udp_{};
    WSPPROC_TABLE table_{};
};

TEST_F(LayerLife, ALowerProviderIsStartedOnceAndEndedByTheLastCleanUp) {
    for (const int chainLength : {1, 2}) {
        SCOPED_TRACE(chainLength);
        LoadAbove(chainLength);
        if (IsSkipped()) return;
        Provider().Reset();
        for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_STREAM})
            ASSERT_EQ(StartLayer(type), 0);
        EXPECT_EQ(Provider().Startups(), 2) << "one for each entry";
        MakeSocket();
        const platform::ScopedClockRate fast(10);
        EXPECT_EQ(CleanUp(), 0);
        EXPECT_EQ(CleanUp(), 0);
        EXPECT_EQ(Provider().Cleanups() + HardCloses() + Closes(), 0);
        EXPECT_EQ(CleanUp(), 0);
        EXPECT_EQ(Provider().Cleanups(), 2);
        EXPECT_EQ(HardCloses(), 1);
        EXPECT_EQ(Closes(), 1);
        ExpectLibraryGoes();
        StopWinsock();
    }
}

TEST_F(LayerLife, UnloadingWhileStartedEndsABaseProviderAndLeavesALayerAlone) {
    const struct {
        int chainLength;
        bool beforeThreadsBegin;  // the last reference of the test's, too
    } rows[] = {{1, false}, {1, true}, {2, false}};
    for (const auto& [chainLength, beforeThreadsBegin] : rows) {
        SCOPED_TRACE(::testing::Message() << chainLength << " " << beforeThreadsBegin);
        LoadAbove(chainLength);
        if (IsSkipped()) return;
        Provider().Reset();
        SOCKET lowerSocket = INVALID_SOCKET;
        INT error = 0;
        const auto startAndUnload = [&, early = beforeThreadsBegin] {
            for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_STREAM}) {
                // The first one collects the process's identity and would keep the library as well.
                const platform::ScopedFault fault({"CreateThread"});
                ASSERT_EQ(StartLayer(type), 0);
            }
            table_.lpWSPListen(MakeSocket(), 1, &error);
            lowerSocket = Provider().Calls(Op::kListen).at(0).socket;
            if (early) layer_->Unload();
        };
        const platform::ScopedClockRate fast(10);
        if (beforeThreadsBegin) {
            WithLoaderLock(startAndUnload);
        } else {
            startAndUnload();
        }
        ExpectLibraryGoes();
        const int told = chainLength == 1 ? 1 : 0;
        EXPECT_EQ(HardCloses(), told);
        EXPECT_EQ(Closes(), told);
        EXPECT_EQ(Provider().Cleanups(), 2 * told);
        if (told == 0) {
            EXPECT_EQ(Provider().CloseSocket(lowerSocket, &error), 0);
        }
        StopWinsock();
    }
}

TEST_F(LayerLife, AStartUpWaitsForTheEndOfACleanUp) {
    LoadAbove(1);
    if (IsSkipped()) return;
    Provider().Reset();
    ASSERT_EQ(StartLayer(), 0);
    std::future<int> ending;
    std::future<int> starting;
    {
        const platform::ScopedClockRate stopped(0);
        ending = std::async(std::launch::async, [&] { return CleanUp(); });
        ASSERT_TRUE(platform::WaitForTimedWaits(1));
        starting = std::async(std::launch::async, [&] { return StartLayer(); });
        EXPECT_TRUE(platform::WaitForTimedWaits(2));
        EXPECT_EQ(starting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        EXPECT_EQ(Provider().Startups(), 1);
    }
    EXPECT_EQ(ending.get(), 0);
    EXPECT_EQ(starting.get(), 0);
    EXPECT_EQ(Provider().Startups(), 2);
    EXPECT_EQ(Provider().Cleanups(), 1);
    MakeSocket();
    EXPECT_EQ(CleanUp(), 0);
    EXPECT_EQ(Provider().Cleanups(), 2);
}

TEST_F(LayerLife, AFirstStartUpThatFailsLeavesNothingAndALaterOneTheLayer) {
    LoadAbove(1);
    if (IsSkipped()) return;
    const platform::ResourceCounts before = platform::CountResources();
    const auto fail = [&](int error, int nullSlot) {
        Provider().ScriptStartup(error, nullSlot);
        EXPECT_EQ(StartLayer(SOCK_DGRAM), error != 0 ? error : WSAEINVALIDPROCTABLE);
        Provider().ScriptStartup(0);
    };
    for (const int error : {0, WSAVERNOTSUPPORTED, WSAENETDOWN}) {
        fail(error, 3);
        EXPECT_EQ(platform::SettleTo(before), "") << error;
    }
    const struct {
        const char* function;
        DWORD error;  // 0: the function's own
    } faults[] = {
        {"HeapCreate", 0},         {"HeapAlloc", 0},
        {"CreateEventW", 0},       {"WSCEnumProtocols", WSAEFAULT},
        {"WSCGetProviderPath", 0}, {"LoadLibraryW", 0},
        {"GetProcAddress", 0},
    };
    for (const auto& [function, error] : faults) {
        const platform::ScopedFault fault({function, 1, platform::FaultKind::kError, error});
        EXPECT_NE(StartLayer(), 0) << function;
        EXPECT_EQ(platform::FaultsStruck(), 1) << function;
        EXPECT_EQ(platform::SettleTo(before), "") << function;
    }
    EXPECT_EQ(CountDebugLines("WSPStartup: InitializeProvider failed: "), 6u);
    const platform::ScopedClockRate fast(10);
    ASSERT_EQ(StartLayer(), 0);
    fail(WSAENETDOWN, -1);
    MakeSocket();
    WSPDATA data{};
    const auto unwritable = reinterpret_cast<LPWSPPROC_TABLE>(8);
    EXPECT_EQ(startup_(MAKEWORD(2, 2), &data, &tcp_, Upcalls(), unwritable), WSAEFAULT);
    for (const LPWSAPROTOCOL_INFOW unreadable :
         {LPWSAPROTOCOL_INFOW{}, reinterpret_cast<LPWSAPROTOCOL_INFOW>(8)})
        EXPECT_EQ(startup_(MAKEWORD(2, 2), &data, unreadable, Upcalls(), &table_), WSAEFAULT);
    EXPECT_EQ(CleanUp(), 0);
    EXPECT_EQ(CleanUp(), WSANOTINITIALISED) << "what failed is not counted";
    ExpectLibraryGoes();
}

TEST_F(LayerLife, TheLibraryStaysForACallThatACleanUpOvertakes) {
    LoadAbove(1);
    if (IsSkipped()) return;
    ASSERT_EQ(StartLayer(), 0);
    const SOCKET s = MakeSocket();
    std::promise<void> leave;
    ProviderReply slow;
    slow.during = [&leave](const ProviderCallRecord&) { leave.get_future().wait(); };
    Provider().ReplyOnce(Op::kListen, slow);
    auto listening = std::async(std::launch::async, [&] {
        INT error = 0;
        return table_.lpWSPListen(s, 1, &error);
    });
    ASSERT_TRUE(Provider().WaitForCalls(Op::kListen, 1));
    EXPECT_EQ(CleanUp(), 0);
    leave.set_value();
    EXPECT_EQ(listening.get(), 0);
    ExpectLibraryStays();
}

TEST_F(LayerLife, TheLibraryStaysForThreadsWhoseEndNobodySaw) {
    LoadAbove(1);
    if (IsSkipped()) return;
    ASSERT_EQ(StartLayer(), 0);
    platform::ArmFault({"WaitForMultipleObjects", 1, platform::FaultKind::kError, 0, true});
    EXPECT_EQ(CleanUp(), 0);
    platform::DisarmFaults();
    ExpectLibraryStays();
}

TEST_F(LayerLife, TheLibraryStaysForThreadsOfAStartUpThatFailed) {
    LoadAbove(1);
    if (IsSkipped()) return;
    Provider().ScriptStartup(WSAENETDOWN);
    platform::ArmFault({"WaitForMultipleObjects", 1, platform::FaultKind::kError, 0, true});
    EXPECT_EQ(StartLayer(), WSAENETDOWN);
    platform::DisarmFaults();
    ExpectLibraryStays();
}

}  // namespace
