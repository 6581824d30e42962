// Whether a program can be run through the layer: it must be one that loads what is preloaded into it.
#pragma once

#include <string>

/// The file that execvp would run for `name`; empty when there is none.
std::string FindProgram(const std::string& name);

/// Why the program at `path` can't be preloaded; empty when it can. For a script, its interpreter counts.
std::string ReasonAgainst(const std::string& path);
