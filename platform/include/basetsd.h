// The pointer-sized integer types live with the other basic types.
#pragma once

#include <windef.h>
