// See line_writer.h.
#include "analyzer/line_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace {

constexpr std::chrono::seconds kPatienceAtEnd(3);
constexpr std::chrono::milliseconds kPauseBeforeRetry(20);

std::size_t CountLines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

/// Outlives the writer for as long as its thread waits for the output.
struct LineWriter::Shared {
    Output output;
    DroppedLine droppedLine;
    std::size_t mostWaitingBytes = 0;

    std::mutex lock;  ///< guards what follows
    std::condition_variable changed;
    std::string waiting;
    std::size_t dropped = 0;
    bool full = false;  ///< a line was dropped since the thread has last taken what waits
    bool ending = false;
    bool ended = false;

    void Run();
};

void LineWriter::Shared::Run() {
    std::unique_lock<std::mutex> hold(lock);
    for (;;) {
        changed.wait(hold, [this] { return ending || !waiting.empty(); });
        if (waiting.empty()) break;
        std::string lines = std::exchange(waiting, std::string());
        const std::size_t missing = std::exchange(dropped, 0);
        full = false;
        hold.unlock();
        const std::size_t count = CountLines(lines);
        if (missing != 0) lines += droppedLine(missing) + '\n';
        const bool written = output(lines);
        hold.lock();
        if (!written) dropped += count + missing;
    }
    ended = true;
    changed.notify_all();
}

LineWriter::LineWriter(Output output, DroppedLine droppedLine, std::size_t mostWaitingBytes)
    : shared_(std::make_shared<Shared>()) {
    shared_->output = std::move(output);
    shared_->droppedLine = std::move(droppedLine);
    shared_->mostWaitingBytes = mostWaitingBytes;
    // Detached: it may wait for the output for ever.
    std::thread([shared = shared_] { shared->Run(); }).detach();
}

LineWriter::~LineWriter() {
    std::unique_lock<std::mutex> hold(shared_->lock);
    shared_->ending = true;
    shared_->changed.notify_all();
    shared_->changed.wait_for(hold, kPatienceAtEnd, [this] { return shared_->ended; });
}

void LineWriter::Write(const std::string& line) {
    const std::lock_guard<std::mutex> hold(shared_->lock);
    // Once a line is missing the next ones are too, until the thread has taken what waits: the line that
    // says so then stands where they would have.
    if (shared_->waiting.size() + line.size() >= shared_->mostWaitingBytes) shared_->full = true;
    if (shared_->full) {
        ++shared_->dropped;
        return;
    }
    if (shared_->waiting.empty()) shared_->changed.notify_all();
    (shared_->waiting += line) += '\n';
}

LineWriter::Output DescriptorOutput(int descriptor) {
    return [descriptor](const std::string& bytes) {
        // Not through stdio, whose end would wait for a write that nobody takes.
        for (std::size_t at = 0; at < bytes.size();) {
            const auto count =
                ::write(descriptor, bytes.data() + at,
                        static_cast<unsigned>(std::min<std::size_t>(bytes.size() - at, 65536)));
            if (count >= 0) {
                at += static_cast<std::size_t>(count);
            } else if (errno == EAGAIN) {
                // Somebody who shares it has made it one that doesn't wait.
                std::this_thread::sleep_for(kPauseBeforeRetry);
            } else if (errno != EINTR) {
                return false;
            }
        }
        return true;
    };
}
