// Windows, as far as this project uses it: types, errors, kernel, text, windows, registry.
#pragma once

#include <windef.h>

#include <winerror.h>
#include <winnt.h>

#include <winbase.h>
#include <winnls.h>
#include <winreg.h>
#include <winuser.h>
