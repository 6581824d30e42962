// See system_files.h.
#include "tests/analyzer/system_files.h"

bool MakeFifo(const std::string&) {
    return false;
}

SmallFiles::SmallFiles() = default;

SmallFiles::~SmallFiles() = default;

bool SmallFiles::Work() const {
    return false;
}
