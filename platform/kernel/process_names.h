// What the process is said to be, whoever says so: names for its executable and for modules that are not
// there. The room that knows registers itself; until then everything is as it really is.
#pragma once

#include <string>
#include <vector>

namespace platform {

struct ProcessNames {
    std::string image;                 // empty: the real path
    std::vector<std::string> modules;  // found beside the loaded ones
};

/// `source` is asked at each use, from any thread, with the loader lock held.
void SetProcessNamesSource(ProcessNames (*source)());

}  // namespace platform
