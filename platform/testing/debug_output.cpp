// The capture of a test: it listens to the debug output.
#include "platform/testing/debug_output.h"

#include <mutex>
#include <new>

#include "platform/kernel/debug_output.h"

namespace platform {

namespace {

struct Captured {
    std::mutex mutex;  // leaf
    std::vector<std::string> texts;
};

Captured& TheCaptured() {
    static Captured* const captured = new Captured;
    return *captured;
}

void Capture(const char* text) {
    const std::lock_guard<std::mutex> holder(TheCaptured().mutex);
    try {
        TheCaptured().texts.emplace_back(text);
    } catch (const std::bad_alloc&) {
        // A lost line of debug output is nobody's failure.
    }
}

void Clear() {
    const std::lock_guard<std::mutex> holder(TheCaptured().mutex);
    TheCaptured().texts.clear();
}

}  // namespace

DebugOutputCapture::DebugOutputCapture() {
    Clear();
    SetDebugOutputListener(Capture);
}

DebugOutputCapture::~DebugOutputCapture() {
    SetDebugOutputListener(nullptr);
    Clear();
}

std::vector<std::string> DebugOutputCapture::Texts() const {
    const std::lock_guard<std::mutex> holder(TheCaptured().mutex);
    return TheCaptured().texts;
}

bool DebugOutputCapture::Contains(const std::string& part) const {
    for (const std::string& text : Texts())
        if (text.find(part) != std::string::npos) return true;
    return false;
}

}  // namespace platform
