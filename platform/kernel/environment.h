// %VARIABLE% expansion for the stand-in itself.
#pragma once

#include <string>

namespace platform {

/// Replaces each %NAME% of a set variable; anything else stays as it is.
std::string ExpandEnvironment(const std::string& source);

}  // namespace platform
