// The locks that each step takes: what another thread does with the lock held is not met halfway.
#include <future>

#include "provider/contexts/handle_locks.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

using Locks = FakeSocket;

TEST_F(Locks, EveryStepWaitsForItsLock) {
    INT error = 0;
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    SocketContext* const context = context_;
    LspEntry* const entry = &Entry(SOCK_STREAM);
    LspEntry* const stopped = &Entry(SOCK_DGRAM);
    CriticalSection& group = GroupOf(s_).Lock;
    Lower().lpWSPAddressToString =
        Callback([](LPSOCKADDR, DWORD, LPWSAPROTOCOL_INFOW, LPWSTR, LPDWORD, LPINT) { return INT{0}; });
    const struct {
        const char* what;
        CriticalSection& lock;
        std::function<void()> step;
    } rows[] = {
        {"a socket is made", CatalogLock, [&] { Close(MakeSocket()); }},
        {"an address is converted", CatalogLock,
         [&] { WSPAddressToString(nullptr, 0, &info, nullptr, nullptr, &error); }},
        {"a context joins its entry", entry->ListLock, [&] { Close(MakeSocket()); }},
        {"a context is looked up", group,
         [&] { DerefSocketContext(FindAndRefSocketContext(s_, &error), &error); }},
        {"a context is found by its lower socket", qx::GlobalLock,
         [&] { FindSocketContextByProviderSocket(nullptr, context->ProviderSocket); }},
        {"a context is found in every entry", CatalogLock,
         [&] { FindSocketContextByProviderSocket(nullptr, context->ProviderSocket); }},
        {"a context is found in an entry", entry->ListLock,
         [&] { FindSocketContextByProviderSocket(entry, context->ProviderSocket); }},
        {"a socket is closed", qx::GlobalLock, [&] { Close(MakeSocket()); }},
        {"a lower provider is started", qx::GlobalLock,
         [&] { EnsureProviderStarted(stopped, nullptr, &error); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        stopped->LowerStartupCount = 0;
        std::future<void> step;
        {
            const Locker lock(row.lock);
            step = std::async(std::launch::async, row.step);
            EXPECT_EQ(step.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        }
        step.get();
    }
    stopped->LowerStartupCount = 0;

    // The private heap appears as a whole.
    EXPECT_TRUE(FreeCatalog());
    std::future<bool> making;
    {
        const Locker lock(CatalogLock);
        making = std::async(std::launch::async, CreatePrivateHeap);
        EXPECT_EQ(making.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        EXPECT_EQ(PrivateHeap, nullptr);
    }
    EXPECT_TRUE(making.get());
    EXPECT_TRUE(FreeCatalog());
    BuildCatalog();
    s_ = MakeSocket();
}

}  // namespace
