// The outcomes as a table for people or as lines of JSON.
#pragma once

#include "apps/demo/outcome.h"

#include <ostream>
#include <vector>

void PrintTable(const std::vector<Outcome>& outcomes, std::ostream* out);

/// One object per line and case.
void PrintJson(const std::vector<Outcome>& outcomes, std::ostream* out);
