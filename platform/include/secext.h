// The extended user names are declared with the rest of the security interface.
#pragma once

#include <security.h>
