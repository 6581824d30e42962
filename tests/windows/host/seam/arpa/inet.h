// Windows has inet_pton in its own header.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>
