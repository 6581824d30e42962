// See port_turn.h. The turn is a lock on the module's own file, which is the same for every process and
// always there; the kernel takes it from a process that dies.
#include "platform/tcpip/port_turn.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace {

int OpenOwnFile() {
    static const int anchor = 0;
    Dl_info module;
    if (dladdr(&anchor, &module) == 0) return -1;
    return open(module.dli_fname, O_RDONLY | O_CLOEXEC);
}

}  // namespace

PortTurn::PortTurn() : file_(OpenOwnFile()) {
    while (file_ >= 0 && flock(file_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

PortTurn::~PortTurn() {
    if (file_ >= 0) close(file_);
}
