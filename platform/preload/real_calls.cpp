// The functions are looked up once; doing it on two threads at the same time writes the same values.
#include "platform/preload/real_calls.h"

#include <dlfcn.h>

#include <atomic>

namespace preload {
namespace {

RealCalls Calls;
std::atomic<bool> AreThere{false};

}  // namespace

const RealCalls& Real() {
    if (AreThere.load(std::memory_order_acquire)) return Calls;
#define QX_LOOK_UP(name) Calls.name = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name));
    QX_REPLACED_CALLS(QX_LOOK_UP)
#undef QX_LOOK_UP
    AreThere.store(true, std::memory_order_release);
    return Calls;
}

}  // namespace preload
