// See system_files.h.
#include "tests/analyzer/system_files.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

void LimitFiles(bool small) {
    rlimit size{};
    ::getrlimit(RLIMIT_FSIZE, &size);
    size.rlim_cur = small ? 2 : size.rlim_max;
    ::setrlimit(RLIMIT_FSIZE, &size);
    ::signal(SIGXFSZ, small ? SIG_IGN : SIG_DFL);
}

}  // namespace

bool MakeFifo(const std::string& path) {
    return ::mkfifo(path.c_str(), 0600) == 0;
}

SmallFiles::SmallFiles() {
    LimitFiles(true);
}

SmallFiles::~SmallFiles() {
    LimitFiles(false);
}

bool SmallFiles::Work() const {
    return true;
}
