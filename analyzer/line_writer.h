// Lines on their way to an output that may be slow, or that nobody reads: a terminal that is held, a pipe
// whose reader hangs. A thread of its own writes them, so that whoever has a line never waits. What there is
// no room for is dropped, and once there is room again a line says how many were.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class LineWriter {
  public:
    /// Writes all bytes, however long it takes; false when they are lost. Runs on the writer's thread, also
    /// after the writer's end while it still waits then.
    using Output = std::function<bool(const std::string& bytes)>;
    /// The line, without its end, that stands for so many dropped ones. Runs on the writer's thread.
    using DroppedLine = std::function<std::string(std::size_t count)>;

    LineWriter(Output output, DroppedLine droppedLine, std::size_t mostWaitingBytes = 1024 * 1024);
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;
    /// Gives the output three seconds to take what waits. What it hasn't taken then is lost.
    ~LineWriter();

    /// A line without its end. Never waits; any thread.
    void Write(const std::string& line);

  private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

/// To a file descriptor of this process: 1 is its standard output, 2 its standard error.
LineWriter::Output DescriptorOutput(int descriptor);
