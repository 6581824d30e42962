// The beginning of what the application sends, or has received, in memory of the layer's own. The
// application's memory may go at any moment; neither the classification nor the lower provider of the spy
// socket ever reads it, only this copy is made of it, under a guard.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "messages/analyzer_messages.h"

/// The most that is looked at, and that goes along with a report. A protocol shows in its first bytes; a
/// larger copy would hold the application up for nothing.
constexpr DWORD kMostSampleBytes = 65536;

class DataSample {
  public:
    DataSample() = default;
    ~DataSample();
    DataSample(const DataSample&) = delete;
    DataSample& operator=(const DataSample&) = delete;

    /// Copies the beginning of the buffers, at most `limit` bytes. False when they can't be read, or without
    /// memory.
    bool Copy(const WSABUF* buffers, DWORD count, DWORD limit);

    bool IsEmpty() const { return bytes_.length == 0; }

    /// What lies in the first of the buffers.
    BufferPiece First() const { return {firstLength_, bytes_.data}; }

    /// Makes the copy the data of a request, which then owns it. False without memory.
    bool MoveTo(LSPAnalyzerMessage* request);

  private:
    BufferPiece bytes_ = {0, nullptr};  // of the arena
    DWORD firstLength_ = 0;
};
