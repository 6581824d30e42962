// The stand-in's debug output under a name of its own.
#include "tests/windows/host/stand_in_knobs.h"

#define OutputDebugStringA StandInOutputDebugStringA

#include "platform/testing/debug_output.cpp"
