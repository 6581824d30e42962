// On Windows the test framework has a thread of its own watch each thread that it keeps a trace or a failure
// for. The main thread's begins here, before a test counts the threads that it leaves behind.
#include <gtest/gtest.h>

namespace {

class WatchedMainThread : public ::testing::Environment {
  public:
    void SetUp() override { SCOPED_TRACE("the first trace"); }
};

const ::testing::Environment* const Watched = ::testing::AddGlobalTestEnvironment(new WatchedMainThread);

}  // namespace
