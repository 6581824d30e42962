// The end of sockets and of the catalog: what reaches the lower provider, and how often; what stays for a
// handle that Winsock does not take back.

#include <algorithm>

#include "platform/kernel/fault_points.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

using Calls = std::vector<std::string>;

class CatalogEnd : public FakeWinsock {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        ServeStreams();
    }

    /// Has the lower provider of streams write down what ends there.
    void ServeStreams() {
        calls_.clear();
        Lower().lpWSPSetSockOpt =
            Callback([](SOCKET s, int level, int option, const char* value, int length, LPINT error) {
                LINGER linger{};
                if (level == SOL_SOCKET && option == SO_LINGER && length == sizeof(linger)) {
                    std::memcpy(&linger, value, sizeof(linger));
                    calls_.push_back("linger " + std::to_string(linger.l_onoff) + " " +
                                     std::to_string(linger.l_linger) + " " + std::to_string(s & 0xF));
                }
                if (optionError_ == 0) return 0;
                *error = optionError_;
                return SOCKET_ERROR;
            });
        Lower().lpWSPCloseSocket = Callback([](SOCKET s, LPINT) {
            calls_.push_back("close " + std::to_string(s & 0xF));
            return 0;
        });
        Lower().lpWSPCleanup = Callback([](LPINT) {
            calls_.push_back("clean-up");
            return 0;
        });
    }

    /// The lower sockets of the streams' list, from either end.
    Calls ListedSockets(bool fromItsEnd) {
        LspEntry& entry = Entry(SOCK_STREAM);
        const Locker lock(entry.ListLock);
        Calls sockets;
        for (const SocketContext* context = fromItsEnd ? entry.LastSocket : entry.FirstSocket;
             context != nullptr; context = fromItsEnd ? context->Link.Previous : context->Link.Next)
            sockets.push_back(std::to_string(context->ProviderSocket & 0xF));
        return sockets;
    }

    static inline Calls calls_;
    static inline int optionError_;
};

TEST_F(CatalogEnd, EverySocketIsClosedHardAndEachStartUpEndedOnceUnlessALayerMayBeGone) {
    const Calls all = {"linger 1 0 0", "close 0", "linger 1 0 1", "close 1", "clean-up", "clean-up"};
    const Calls noSockets = {"linger 1 0 0", "linger 1 0 1", "clean-up", "clean-up"};
    const struct {
        const char* what;
        bool detaching;
        int chainLength;
        int optionError;
        Calls expected;
    } rows[] = {
        {"a clean-up above a base provider", false, 1, 0, all},
        {"a clean-up above a layer", false, 2, 0, all},
        {"a detach above a base provider", true, 1, 0, all},
        {"a detach above a layer", true, 2, 0, {}},
        {"a socket that knows no lingering", false, 1, WSAENOPROTOOPT, all},
        {"a socket that is no more, whose value may be another's", false, 1, WSAENOTSOCK, noSockets},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        optionError_ = row.optionError;
        Fake().nextLowerSocket = 0x5000;
        Fake().cleanups = 0;
        Entry(SOCK_STREAM).LowerStartupCount = 2;
        Entry(SOCK_STREAM).NextProvider.ProtocolChain.ChainLen = row.chainLength;
        Entry(SOCK_DGRAM).LowerStartupCount = 0;
        MakeSocket();
        MakeSocket();
        EXPECT_TRUE(FreeCatalog(row.detaching));
        EXPECT_EQ(calls_, row.expected);
        EXPECT_EQ(Fake().cleanups, 3) << "the other entries, but not the one that was never started";
        EXPECT_TRUE(Fake().handles.empty());
        BuildCatalog();
        ServeStreams();
    }
}

TEST_F(CatalogEnd, TheListOfSocketsStaysWholeWhicheverIsClosed) {
    for (const std::size_t first : {0, 1, 2}) {
        Fake().nextLowerSocket = 0x5000;
        std::vector<SOCKET> sockets = {MakeSocket(), MakeSocket(), MakeSocket()};
        Calls left = {"0", "1", "2"};
        for (const std::size_t index : {first, std::size_t{1}, std::size_t{0}}) {
            const std::size_t place = index < sockets.size() ? index : 0;
            Close(sockets[place]);
            sockets.erase(sockets.begin() + static_cast<std::ptrdiff_t>(place));
            left.erase(left.begin() + static_cast<std::ptrdiff_t>(place));
            EXPECT_EQ(ListedSockets(false), left) << first;
            EXPECT_EQ(ListedSockets(true), Calls(left.rbegin(), left.rend())) << first;
        }
    }
}

TEST_F(CatalogEnd, AHandleThatWinsockKeepsLeadsToAClosedSocketUntilItIsGivenBack) {
    for (const bool byNextUse : {true, false}) {
        const SOCKET s = MakeSocket();
        calls_.clear();
        Fake().closeHandleError = WSAENETDOWN;
        EXPECT_EQ(ErrorOf(WSPCloseSocket(s, &error_) == 0), WSAENETDOWN);
        EXPECT_EQ(calls_.size(), 1u) << "the lower socket is closed";
        EXPECT_EQ(ListedSockets(false).size(), 1u);
        Fake().closeHandleError = 0;
        if (byNextUse) {
            EXPECT_EQ(ErrorOf(WSPCloseSocket(s, &error_) == 0), WSAENOTSOCK);
            EXPECT_TRUE(ListedSockets(false).empty());
        } else {
            EXPECT_TRUE(FreeCatalog());
        }
        EXPECT_EQ(Fake().handles.count(s), 0u);
        EXPECT_EQ(std::count(calls_.begin(), calls_.end(),
                             "close " + std::to_string((Fake().nextLowerSocket - 1) & 0xF)),
                  1)
            << "once, not again";
    }
}

TEST_F(CatalogEnd, ASpySocketIsTheContextsToClose) {
    const SOCKET s = MakeSocket();
    ContextOf(s)->SpySocket = 0x99;
    platform::CountCalls();
    Close(s);
    const std::vector<std::string> calls = platform::CountedCalls();
    platform::DisarmFaults();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "closesocket"), 1);
}

}  // namespace
