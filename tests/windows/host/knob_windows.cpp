// The machine's scripted top-level windows under names of their own.
#include "tests/windows/host/stand_in_knobs.h"

#define EnumWindows StandInEnumWindows
#define GetWindowThreadProcessId StandInGetWindowThreadProcessId
#define GetAncestor StandInGetAncestor
#define SendMessageTimeoutA StandInSendMessageTimeoutA
#define IsWindow StandInIsWindow

#include "platform/user/windows.cpp"
