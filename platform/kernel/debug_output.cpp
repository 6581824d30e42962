// The way of the debug output: to stderr, to a listener, or nowhere.
#include "platform/kernel/debug_output.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace platform {

namespace {

struct Sink {
    std::mutex mutex;  // guards the listener; held while it is told
    DebugOutputListener listener = nullptr;
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

void SetDebugOutputListener(DebugOutputListener listener) {
    Sink& sink = TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    sink.listener = listener;
}

}  // namespace platform

void StandInOutputDebugStringA(LPCSTR text) {
    if (text == nullptr) return;
    if (platform::WritesToStderr())
        std::fprintf(stderr, "%s%s", text, std::strchr(text, '\n') != nullptr ? "" : "\n");
    platform::Sink& sink = platform::TheSink();
    const std::lock_guard<std::mutex> holder(sink.mutex);
    if (sink.listener != nullptr) sink.listener(text);
}
