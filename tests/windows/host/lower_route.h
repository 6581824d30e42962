// Where traffic to a destination really goes, for the base provider on Windows: the machine's routes, as the
// native base provider keeps them. Nothing leaves the machine: a destination is loopback, or has a route, or
// is unreachable. Any thread may call; a leaf lock.
#pragma once

#include <winsock2.h>

namespace lower {

struct Route {
    sockaddr_storage target{};  // of the size of the destination
    bool routed = false;        // target is not the destination itself
};

/// The route to `destination`. 0, or the Winsock error: WSAENETUNREACH when there is none.
int FindRoute(const sockaddr* destination, int length, int type, Route* route);

/// A socket reaches `target` under the name of `destination` from now on, until ForgetNames.
void RememberName(SOCKET s, const sockaddr* destination, int length, const Route& route);

/// If `address` is the target of a name that the socket uses, replaces it by that name.
void RestoreName(SOCKET s, sockaddr* address, const int* length);

void ForgetNames(SOCKET s);

/// Closes the sockets behind the routes into nowhere; they are made again at need.
void CloseBlackHoles();

}  // namespace lower
