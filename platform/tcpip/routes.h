// Where traffic to a destination really goes. Nothing leaves the machine: a destination is either loopback,
// or the machine's route table sends it to a loopback address or into a black hole, or it is unreachable.
//
// Any thread may call; a leaf lock of its own.
#pragma once

#include "platform/tcpip/endpoint.h"
#include "platform/tcpip/kernel_socket.h"

namespace tcpip {

struct Route {
    Endpoint target;
    bool routed = false;     ///< target is not the destination itself
    bool blackHole = false;  ///< target is one that never answers
};

/// Finds the route for traffic of that kind. 0, or the Winsock error: WSAENETUNREACH when there is no route.
int FindRoute(const Endpoint& destination, kernel::Kind kind, Route* route);

/// Closes the sockets behind the black hole; they are made again at need.
void CloseBlackHoles();

}  // namespace tcpip
