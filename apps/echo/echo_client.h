// The echo client: opens all its connections, then lets every one of them send a message and await its echo a
// number of times, all at once, on one completion port; none is closed before all have ended. One thread;
// every connection has at most one operation outstanding.
#pragma once

#include <winsock2.h>

#include <cstddef>
#include <functional>

/// A connection sends its whole message before it receives, so a message must fit the buffers on the way.
constexpr std::size_t kMaxMessageBytes = 16384;

struct EchoLoad {
    int connections = 1;
    int rounds = 1;
    std::size_t messageBytes = 64;      ///< at most kMaxMessageBytes
    bool connectEx = false;             ///< connect with ConnectEx, all at the same time
    DWORD timeoutMilliseconds = 60000;  ///< the longest wait for any packet
};

struct EchoOutcome {
    int connected = 0;
    int finished = 0;               ///< connections that got every echo
    std::size_t echoes = 0;         ///< messages that came back unchanged
    std::size_t wrong = 0;          ///< messages that came back changed
    int firstError = 0;             ///< of the first connection that failed
    DWORD elapsedMilliseconds = 0;  ///< of the rounds alone
};

/// Runs the load against `server`; `whenConnected` is called once between connecting and the first message.
/// Throws std::runtime_error when no completion port can be had; failures of connections are in the outcome.
EchoOutcome RunEchoLoad(const sockaddr_in& server, const EchoLoad& load,
                        const std::function<void()>& whenConnected);
