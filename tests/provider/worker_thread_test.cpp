// When a thread of the overlapped manager counts as ended.
#include "provider/overlapped/worker_thread.h"

#include "platform/testing/resource_counts.h"
#include "tests/support/callback.h"
#include "tests/support/loader_lock.h"

namespace {

struct Work {
    HANDLE Begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE MayEnd = CreateEventA(nullptr, TRUE, FALSE, nullptr);
};

TEST(WorkerThread, IsDoneBeforeItsThreadCanEnd) {
    const platform::ResourceCounts before = platform::CountResources();
    Work work;
    WorkerThread worker{};
    ASSERT_TRUE(ThreadStarter().Start(Callback([](LPVOID argument) -> DWORD {
                                          const auto* const mine = static_cast<Work*>(argument);
                                          SetEvent(mine->Begun);
                                          return WaitForSingleObject(mine->MayEnd, INFINITE);
                                      }),
                                      &work, &worker));
    WaitForSingleObject(work.Begun, INFINITE);
    WithLoaderLock([&] {
        SetEvent(work.MayEnd);
        EXPECT_TRUE(StopDeadline(20'000).Await(&worker));
    });
    CloseHandle(work.Begun);
    CloseHandle(work.MayEnd);
    EXPECT_EQ(platform::SettleTo(before), "");
}

}  // namespace
