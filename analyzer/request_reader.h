// Frames of the layer as values. The message is kept and used again, so that a request costs few allocations.
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "analyzer/request.h"
#include "messages/analyzer_messages.h"

class RequestReader {
  public:
    /// False for a frame that is no request. What the others give comes from this frame, which must stay for
    /// as long.
    bool Read(const unsigned char* frame, std::size_t length);

    std::uint32_t Operation() const { return message_.Operation; }
    std::uint32_t ProcessId() const { return message_.ProcessId; }
    /// The data section.
    const unsigned char* Data() const { return data_; }
    std::size_t DataLength() const { return static_cast<std::size_t>(message_.DataLength); }

    /// Everything but the data.
    void Fill(Request& request) const;

  private:
    LSPAnalyzerMessage message_;
    const unsigned char* data_ = nullptr;
};
