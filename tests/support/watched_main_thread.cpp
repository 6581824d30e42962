// On Windows the test framework has a thread of its own watch each thread that it keeps a trace or a failure
// for. The main thread's begins here, before a test counts the threads that it leaves behind. Its one wait is
// a fault point like any of the program's, so it has to be over before a test counts calls or makes one fail.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"

namespace {

bool IsWaitCounted() {
    const std::vector<std::string> calls = platform::CountedCalls();
    return std::count(calls.begin(), calls.end(), "WaitForSingleObject") != 0;
}

class WatchedMainThread : public ::testing::Environment {
  public:
    void SetUp() override {
        platform::CountCalls();
        SCOPED_TRACE("the first trace");
        while (!IsWaitCounted())
            std::this_thread::yield();
        platform::DisarmFaults();
    }
};

const ::testing::Environment* const Watched = ::testing::AddGlobalTestEnvironment(new WatchedMainThread);

}  // namespace
