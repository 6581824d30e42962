// The outcomes as a table for people or as lines of JSON.
#pragma once

#include "apps/demo/outcome.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

/// What the words of the table mean; the servers' real addresses by their names.
void PrintIntroduction(const std::map<std::string, std::string>& serverAddresses, std::ostream* out);

void PrintTable(const std::vector<Outcome>& outcomes, std::ostream* out);

/// One object per line and case.
void PrintJson(const std::vector<Outcome>& outcomes, std::ostream* out);
