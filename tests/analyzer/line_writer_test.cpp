// Lines for an output that takes them late or never.
#include "analyzer/line_writer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>

namespace {

/// An output that waits while it is held.
class HeldOutput {
  public:
    LineWriter::Output Function() {
        return [this](const std::string& bytes) {
            std::unique_lock<std::mutex> hold(lock_);
            entered_ = true;
            changed_.notify_all();
            changed_.wait(hold, [this] { return !held_; });
            if (std::exchange(refuses_, false)) return false;
            taken_ += bytes;
            changed_.notify_all();
            return true;
        };
    }

    void AwaitCall() {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait(hold, [this] { return entered_; });
    }
    void Release() {
        const std::lock_guard<std::mutex> hold(lock_);
        held_ = false;
        changed_.notify_all();
    }
    /// The call that waits fails, those behind it don't.
    void ReleaseRefusing() {
        const std::lock_guard<std::mutex> hold(lock_);
        held_ = false;
        refuses_ = true;
        changed_.notify_all();
    }
    std::string Taken() {
        const std::lock_guard<std::mutex> hold(lock_);
        return taken_;
    }
    /// What it has taken once `end` is in it.
    std::string Await(const std::string& end) {
        std::unique_lock<std::mutex> hold(lock_);
        const auto there = [&] { return taken_.find(end) != std::string::npos; };
        changed_.wait_for(hold, std::chrono::seconds(20), there);
        return taken_;
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool held_ = true;
    bool entered_ = false;
    bool refuses_ = false;
    std::string taken_;
};

std::string Missing(std::size_t count) {
    return std::to_string(count) + " missing";
}

TEST(LineWriter, DropsWhatThereIsNoRoomForAndSaysSo) {
    HeldOutput output;
    LineWriter writer(output.Function(), Missing, 10);
    writer.Write("first");
    output.AwaitCall();
    writer.Write("four");
    writer.Write("five5");
    writer.Write("six");
    writer.Write("");
    output.Release();
    EXPECT_EQ(output.Await("missing\n"), "first\nfour\n3 missing\n");
    writer.Write("next");
    EXPECT_EQ(output.Await("next\n"), "first\nfour\n3 missing\nnext\n");
}

TEST(LineWriter, CountsWhatTheOutputRefuses) {
    HeldOutput output;
    LineWriter writer(output.Function(), Missing);
    writer.Write("lost");
    output.AwaitCall();
    writer.Write("kept");
    output.ReleaseRefusing();
    EXPECT_EQ(output.Await("missing\n"), "kept\n1 missing\n");
}

TEST(LineWriter, EndsWithAllLinesWritten) {
    HeldOutput output;
    {
        LineWriter writer(output.Function(), Missing);
        for (const char* line : {"1", "2", "3"})
            writer.Write(line);
        output.Release();
    }
    EXPECT_EQ(output.Taken(), "1\n2\n3\n");
}

}  // namespace
