// What the process writes to the debug output. Without a capture it is dropped, unless the environment
// variable QX_DEBUG_OUTPUT is "stderr". Any thread may call.
#pragma once

#include <string>
#include <vector>

namespace platform {

/// Collects the texts given to OutputDebugStringA between construction and destruction. One at a time.
class DebugOutputCapture {
  public:
    DebugOutputCapture();
    ~DebugOutputCapture();
    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

    /// What was written so far, one element per call.
    std::vector<std::string> Texts() const;

    /// True when some text contains `part`.
    bool Contains(const std::string& part) const;
};

}  // namespace platform
