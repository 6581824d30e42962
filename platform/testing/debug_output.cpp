#include "platform/testing/debug_output.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace platform {

namespace {

struct Sink {
    std::mutex mutex;  // leaf; guards everything here
    bool capturing = false;
    std::vector<std::string> texts;
};

Sink& TheSink() {
    static Sink* const sink = new Sink;
    return *sink;
}

bool WritesToStderr() {
    static const bool writes = [] {
        const char* choice = std::getenv("QX_DEBUG_OUTPUT");
        return choice != nullptr && std::strcmp(choice, "stderr") == 0;
    }();
    return writes;
}

}  // namespace

DebugOutputCapture::DebugOutputCapture() {
    Sink& sink = TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    sink.texts.clear();
    sink.capturing = true;
}

DebugOutputCapture::~DebugOutputCapture() {
    Sink& sink = TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    sink.capturing = false;
    sink.texts.clear();
}

std::vector<std::string> DebugOutputCapture::Texts() const {
    Sink& sink = TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    return sink.texts;
}

bool DebugOutputCapture::Contains(const std::string& part) const {
    for (const std::string& text : Texts())
        if (text.find(part) != std::string::npos) return true;
    return false;
}

}  // namespace platform

void OutputDebugStringA(LPCSTR text) {
    if (text == nullptr) return;
    if (platform::WritesToStderr())
        std::fprintf(stderr, "%s%s", text, std::strchr(text, '\n') != nullptr ? "" : "\n");
    platform::Sink& sink = platform::TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    if (!sink.capturing) return;
    try {
        sink.texts.emplace_back(text);
    } catch (const std::bad_alloc&) {
        // A lost line of debug output is nobody's failure.
    }
}
