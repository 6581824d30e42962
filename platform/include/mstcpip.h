// Control codes and structures of TCP beyond the common options, as on Windows.
#pragma once

#include <winsock2.h>

struct tcp_keepalive {
    ULONG onoff;
    ULONG keepalivetime;
    ULONG keepaliveinterval;
};

#define SIO_KEEPALIVE_VALS _WSAIOW(IOC_VENDOR, 4)
