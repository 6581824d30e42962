// Each allocation fails in turn: the call fails or makes do, and nothing is lost.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "protocols/compiled_patterns.h"
#include "tests/support/replaced_new.h"

namespace {

int CallsUntilFailure = -1;  // one call fails; negative: none

/// Runs `action` with the n-th allocation failing, n = 0, 1, 2, ... until it returns true.
template <typename Action>
int FailEach(Action action) {
    for (int n = 0; n < 100000; ++n) {
        CallsUntilFailure = n;
        const bool done = action();
        CallsUntilFailure = -1;
        if (done) return n;
    }
    return -1;
}

}  // namespace

void* AllocateForNew(std::size_t size) noexcept {
    if (CallsUntilFailure >= 0 && CallsUntilFailure-- == 0) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

void ReleaseFromDelete(void* memory) noexcept {
    std::free(memory);
}

namespace {

TEST(OutOfMemory, CompilerAndMatcherFailWithTheirCode) {
    Regexp regexp;
    int result = 0;
    EXPECT_EQ(4, FailEach([&] {
                  result = RegexpCompile(regexp, "a[bc]*(d|[ef])");
                  if (result == 0) return true;
                  EXPECT_EQ(-12, result);
                  EXPECT_EQ(nullptr, regexp.states);
                  return false;
              }))
        << "two arrays and a bitmap for each class";
    RegMatcher matcher;
    EXPECT_EQ(4, FailEach([&] {
                  result = RegMatcherInit(matcher, 100);
                  if (result == 0) return true;
                  EXPECT_EQ(-12, result);
                  EXPECT_EQ(0, matcher.current.capacity + matcher.next.capacity);
                  return false;
              }));
}

TEST(OutOfMemory, PatternsMakeDoWithoutAutomata) {
    ProtocolSample sample{};
    sample.clientData = "VER 1 MSNP8 CVR0\r\n";
    sample.clientLength = 18;
    testing::internal::CaptureStderr();
    const int enough = FailEach([&] {
        ProtocolSample tried = sample;
        CompiledPatterns patterns;
        const int error = patterns.Compile(ProtocolTable);
        const bool failed = CallsUntilFailure < 0;
        CallsUntilFailure = -1;
        // An automaton that could not be built is not missed, and a table cut short does no harm.
        const bool matched = patterns.Classify(tried);
        EXPECT_TRUE(matched || error != 0);
        return !failed;
    });
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("client regex '.*<stream"));
    EXPECT_GT(enough, 60);
}

TEST(OutOfMemory, ClassificationWithoutAMatcherIsNoMatch) {
    CompiledPatterns patterns;
    ASSERT_EQ(0, patterns.Compile(ProtocolTable, CompiledPatterns::Engine::kSimulated));
    ProtocolSample sample{};
    sample.serverData = "SSH-2.0-x";
    sample.serverLength = 9;
    testing::internal::CaptureStderr();
    CallsUntilFailure = 0;
    const bool matched = patterns.Classify(sample);
    CallsUntilFailure = -1;
    EXPECT_EQ("Could not alloc regmatcher for connection.", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(matched);
    EXPECT_TRUE(patterns.Classify(sample));
    EXPECT_EQ(kProtocolSsh, sample.protocol);
}

}  // namespace
