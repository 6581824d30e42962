// What the Winsock host takes of the handle table: on Windows that is the system's.
#pragma once

#include <windows.h>
