// One exchange of the client: a request to a server and its answer, over a stream (HTTP/1.0) or in datagrams.
// Every call opens its own socket and closes it before it returns. Any number of threads may run exchanges.
#pragma once

#include "apps/shared/exchange_report.h"

#include <winsock2.h>

#include <string>

struct ExchangeOptions {
    bool nonblocking = false;           ///< connect without blocking and wait with select
    bool bind = false;                  ///< bind the socket first
    bool greeting = false;              ///< only receive, until the server closes
    bool datagram = false;              ///< send the path as one datagram and await one in return
    std::size_t closeAfterBytes = 0;    ///< close once so many bytes have come; 0: when the server does
    DWORD timeoutMilliseconds = 60000;  ///< for each wait, save a blocking connect
};

/// Asks `server` for `path`; never throws for a network failure.
ExchangeResult Exchange(const sockaddr_in& server, const std::string& path, const ExchangeOptions& options);
