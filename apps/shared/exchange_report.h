// What a client is asked for and how it tells what came of it: the same lines for every client, which the
// demo reads.
#pragma once

#include <winsock2.h>

#include <cstddef>
#include <string>

/// A server and a path on it.
struct Target {
    std::string text;
    sockaddr_in server;
    std::string path;
};

/// Reads "http://A.B.C.D[:PORT][/PATH]", the scheme being optional. Throws std::runtime_error.
Target ParseTarget(const std::string& text, unsigned short defaultPort);

/// How an exchange went. The step that failed first has set `failedStep` and `error`.
struct ExchangeResult {
    std::string failedStep;  ///< "socket", "connect", "send", "receive" or empty
    int error = 0;           ///< Winsock error of that step
    std::string peer;        ///< what getpeername gave after the connect; a datagram's sender; may be empty
    int status = 0;          ///< HTTP status, 0 when there is none
    std::size_t bytes = 0;   ///< bytes received in all
    std::string firstBodyLine;
    std::string checksum;  ///< of a stream answer's body
    DWORD elapsedMilliseconds = 0;

    bool Succeeded() const { return failedStep.empty(); }
};

/// Notes the outcome of a step; true when the exchange can go on.
bool Passed(const char* step, int error, ExchangeResult* result);

/// What getpeername gives for the socket; empty when it fails.
std::string PeerOf(SOCKET socket);

std::string FirstLine(const std::string& text);

/// One line on the standard output: JSON, or words.
void PrintResult(const Target& target, const ExchangeResult& result, bool json);
