// The machine's routes over the system's sockets.
#include "tests/windows/host/lower_route.h"

#include <ws2tcpip.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/system/machine.h"

namespace lower {

namespace {

struct Name {
    sockaddr_storage destination;
    sockaddr_storage target;
    int length;
};

/// A listener whose queue is full and stays so, or a datagram socket that nobody reads.
struct BlackHole {
    SOCKET listener = INVALID_SOCKET;
    SOCKET filler = INVALID_SOCKET;
    sockaddr_in address{};
};

struct Tables {
    std::mutex mutex;  // leaf; guards everything here
    std::map<SOCKET, std::vector<Name>> names;
    BlackHole holes[2];  // for streams, for datagrams
};

Tables& TheTables() {
    static Tables& tables = *new Tables;
    return tables;
}

/// Family, address and port of a numeric address.
bool Parse(const std::string& text, std::uint16_t port, sockaddr_storage* address) {
    *address = {};
    auto* v4 = reinterpret_cast<sockaddr_in*>(address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(address);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        return true;
    }
    if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) != 1) return false;
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    return true;
}

// The port stands at the same place in both families.
u_short PortOf(const sockaddr* address) {
    return reinterpret_cast<const sockaddr_in*>(address)->sin_port;
}

bool SameHost(const sockaddr* a, const sockaddr* b) {
    if (a->sa_family != b->sa_family) return false;
    if (a->sa_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in*>(b)->sin_addr.s_addr;
    }
    return std::memcmp(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr,
                       &reinterpret_cast<const sockaddr_in6*>(b)->sin6_addr, sizeof(in6_addr)) == 0;
}

const sockaddr* Plain(const sockaddr_storage* address) {
    return reinterpret_cast<const sockaddr*>(address);
}

bool IsAt(const Name& name, const sockaddr* address) {
    return SameHost(Plain(&name.target), address) && PortOf(Plain(&name.target)) == PortOf(address);
}

bool IsLoopback(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == 127;
    }
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) ||
           (IN6_IS_ADDR_V4MAPPED(&v6) && reinterpret_cast<const unsigned char*>(&v6)[12] == 127);
}

bool IsAny(const sockaddr* address) {
    if (address->sa_family == AF_INET)
        return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr == INADDR_ANY;
    return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

/// With the lock held. 0 or the error.
int OpenHole(int type, BlackHole* hole) {
    if (hole->listener != INVALID_SOCKET) return 0;
    hole->listener = socket(AF_INET, type, 0);
    hole->address = {};
    hole->address.sin_family = AF_INET;
    hole->address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof(hole->address);
    auto* const name = reinterpret_cast<sockaddr*>(&hole->address);
    if (bind(hole->listener, name, length) != 0 || getsockname(hole->listener, name, &length) != 0)
        return WSAGetLastError();
    if (type != SOCK_STREAM) return 0;
    if (listen(hole->listener, 0) != 0) return WSAGetLastError();
    hole->filler = socket(AF_INET, type, 0);
    return connect(hole->filler, name, length) == 0 ? 0 : WSAGetLastError();
}

int IntoBlackHole(int type, Route* route) {
    Tables& tables = TheTables();
    const std::lock_guard<std::mutex> lock(tables.mutex);
    BlackHole& hole = tables.holes[type == SOCK_STREAM ? 0 : 1];
    const int error = OpenHole(type == SOCK_STREAM ? SOCK_STREAM : SOCK_DGRAM, &hole);
    std::memcpy(&route->target, &hole.address, sizeof(hole.address));
    return error;
}

}  // namespace

int FindRoute(const sockaddr* destination, int length, int type, Route* route) {
    *route = {};
    if (length < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
    std::memcpy(&route->target, destination, static_cast<std::size_t>(length));
    const auto machine = platform::TheMachine();
    for (const platform::MachineRoute& entry : machine->routes) {
        sockaddr_storage from;
        if (!Parse(entry.destinationAddress, entry.destinationPort, &from)) continue;
        const auto* name = reinterpret_cast<const sockaddr*>(&from);
        if (!SameHost(name, destination)) continue;
        if (entry.destinationPort != 0 && PortOf(name) != PortOf(destination)) continue;
        route->routed = true;
        if (entry.blackHole)
            return destination->sa_family == AF_INET ? IntoBlackHole(type, route) : WSAENETUNREACH;
        if (!Parse(entry.targetAddress, entry.targetPort, &route->target)) return WSAENETUNREACH;
        auto* const target = reinterpret_cast<sockaddr*>(&route->target);
        if (target->sa_family != destination->sa_family || !IsLoopback(target)) return WSAENETUNREACH;
        if (entry.targetPort == 0) reinterpret_cast<sockaddr_in*>(target)->sin_port = PortOf(destination);
        return 0;
    }
    return IsLoopback(destination) || IsAny(destination) ? 0 : WSAENETUNREACH;
}

void RememberName(SOCKET s, const sockaddr* destination, int length, const Route& route) {
    Name name{};
    // As long as the system gives addresses back.
    const std::size_t known = destination->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    name.length = static_cast<int>(std::min(known, static_cast<std::size_t>(length)));
    name.target = route.target;
    std::memcpy(&name.destination, destination, static_cast<std::size_t>(name.length));
    const std::lock_guard<std::mutex> lock(TheTables().mutex);
    // Whoever is at the same target had another name before.
    std::vector<Name>& names = TheTables().names[s];
    names.erase(std::remove_if(names.begin(), names.end(),
                               [&](const Name& old) { return IsAt(old, Plain(&route.target)); }),
                names.end());
    names.push_back(name);
}

void RestoreName(SOCKET s, sockaddr* address, const int* length) {
    if (address == nullptr || length == nullptr) return;
    const std::lock_guard<std::mutex> lock(TheTables().mutex);
    const auto found = TheTables().names.find(s);
    if (found == TheTables().names.end()) return;
    for (auto name = found->second.rbegin(); name != found->second.rend(); ++name) {
        if (*length < name->length || !IsAt(*name, address)) continue;
        std::memcpy(address, &name->destination, static_cast<std::size_t>(name->length));
        return;
    }
}

void ForgetNames(SOCKET s) {
    const std::lock_guard<std::mutex> lock(TheTables().mutex);
    TheTables().names.erase(s);
}

void CloseBlackHoles() {
    const std::lock_guard<std::mutex> lock(TheTables().mutex);
    for (BlackHole& hole : TheTables().holes) {
        if (hole.filler != INVALID_SOCKET) closesocket(hole.filler);
        if (hole.listener != INVALID_SOCKET) closesocket(hole.listener);
        hole = {};
    }
}

}  // namespace lower
