// One exchange of the client: a request to a server and its answer, over a stream (HTTP/1.0) or in datagrams.
// Every call opens its own socket and closes it before it returns. Any number of threads may run exchanges.
#pragma once

#include <winsock2.h>

#include <string>

struct ExchangeOptions {
    bool nonblocking = false;           ///< connect without blocking and wait with select
    bool datagram = false;              ///< send the path as one datagram and await one in return
    std::size_t closeAfterBytes = 0;    ///< close once so many bytes have come; 0: when the server does
    DWORD timeoutMilliseconds = 60000;  ///< for each wait, save a blocking connect
};

/// How an exchange went. The step that failed first has set `failedStep` and `error`.
struct ExchangeResult {
    std::string failedStep;  ///< "socket", "connect", "send", "receive" or empty
    int error = 0;           ///< Winsock error of that step
    std::string peer;        ///< what getpeername gave after the connect; a datagram's sender; may be empty
    int status = 0;          ///< HTTP status, 0 for datagrams or when there was none
    std::size_t bytes = 0;   ///< bytes received in all
    std::string firstBodyLine;
    std::string checksum;  ///< of a stream answer's body
    DWORD elapsedMilliseconds = 0;

    bool Succeeded() const { return failedStep.empty(); }
};

/// Asks `server` for `path`; never throws for a network failure.
ExchangeResult Exchange(const sockaddr_in& server, const std::string& path, const ExchangeOptions& options);
