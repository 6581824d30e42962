// The depths of a thread in a Windows process.
#include "platform/guard/call_depth.h"

namespace platform {

CallDepth& CurrentCallDepth() noexcept {
    static __thread CallDepth depth;
    return depth;
}

}  // namespace platform
