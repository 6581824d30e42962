// The black hole is real: a listener whose queue is full drops every further request to connect, and a
// datagram socket that nobody reads swallows what it gets. The kernel then behaves in every wait as it does
// for a destination that does not answer.
#include "platform/tcpip/routes.h"

#include <winsock2.h>

#include <memory>
#include <mutex>
#include <vector>

#include "platform/system/machine.h"
#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"

namespace tcpip {
namespace {

struct Entry {
    Endpoint destination;  // port 0: any
    Endpoint target;
    bool blackHole;
};

/// One kernel socket that never answers, and for streams the connection that fills its queue.
struct BlackHole {
    int fd = -1;
    int filler = -1;
    std::uint16_t port = 0;
};

std::mutex Lock;                                       // guards everything below
std::shared_ptr<const platform::Machine> ReadMachine;  // the machine that Table was read from
std::vector<Entry> Table;
BlackHole BlackHoles[2][2];  // [v6][datagram]

bool ParseEither(const std::string& text, Endpoint* endpoint) {
    return ParseAddress(text.c_str(), false, endpoint) || ParseAddress(text.c_str(), true, endpoint);
}

void ReadTable() {
    std::shared_ptr<const platform::Machine> machine = platform::TheMachine();
    if (machine == ReadMachine) return;
    Table.clear();
    for (const platform::MachineRoute& route : machine->routes) {
        Entry entry = {};
        entry.blackHole = route.blackHole;
        if (!ParseEither(route.destinationAddress, &entry.destination)) continue;
        if (!route.blackHole && !ParseEither(route.targetAddress, &entry.target)) continue;
        entry.destination.port = route.destinationPort;
        entry.target.port = route.targetPort;
        Table.push_back(entry);
    }
    ReadMachine = std::move(machine);
}

void CloseHole(BlackHole* hole) {
    if (hole->filler >= 0) kernel::Close(hole->filler);
    if (hole->fd >= 0) kernel::Close(hole->fd);
    *hole = BlackHole();
}

int OpenHole(bool v6, bool datagram, BlackHole* hole) {
    const kernel::Kind kind = datagram ? kernel::Kind::Datagram : kernel::Kind::Stream;
    int error = 0;
    Endpoint local;
    hole->fd = kernel::Create(v6, kind, &error);
    if (error == 0) error = kernel::Bind(hole->fd, LoopbackEndpoint(v6, 0));
    if (error == 0) error = kernel::LocalName(hole->fd, &local);
    if (error == 0 && !datagram) error = kernel::Listen(hole->fd, 0);
    if (error == 0 && !datagram) hole->filler = kernel::Create(v6, kind, &error);
    if (error == 0 && !datagram) error = kernel::Connect(hole->filler, local);
    if (error == 0 && !datagram) {
        // Full only when the filler's connection has arrived in the queue.
        kernel::PollEntry entry = {hole->fd, static_cast<short>(kernel::kReadable), 0};
        kernel::Poll(&entry, 1, -1, &error);
    }
    if (error != 0) CloseHole(hole);
    hole->port = local.port;
    return WinsockErrorFromErrno(error);
}

const Entry* FindEntry(const Endpoint& destination) {
    for (const Entry& entry : Table) {
        if (entry.destination.v6 == destination.v6 && entry.destination.address == destination.address &&
            (entry.destination.port == 0 || entry.destination.port == destination.port)) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

int FindRoute(const Endpoint& destination, kernel::Kind kind, Route* route) {
    std::lock_guard<std::mutex> guard(Lock);
    ReadTable();
    *route = {destination, false, false};
    const Entry* entry = FindEntry(destination);
    if (entry == nullptr) return IsLoopback(destination) ? 0 : WSAENETUNREACH;
    route->routed = true;
    if (entry->blackHole) {
        const bool datagram = kind != kernel::Kind::Stream;
        BlackHole& hole = BlackHoles[destination.v6 ? 1 : 0][datagram ? 1 : 0];
        const int error = hole.fd >= 0 ? 0 : OpenHole(destination.v6, datagram, &hole);
        route->target = LoopbackEndpoint(destination.v6, hole.port);
        route->blackHole = true;
        return error;
    }
    // A socket reaches addresses of its own family only, and never one outside this machine.
    if (entry->target.v6 != destination.v6 || !IsLoopback(entry->target)) return WSAENETUNREACH;
    route->target = entry->target;
    if (route->target.port == 0) route->target.port = destination.port;
    return 0;
}

void CloseBlackHoles() {
    std::lock_guard<std::mutex> guard(Lock);
    for (auto& family : BlackHoles) {
        for (BlackHole& hole : family)
            CloseHole(&hole);
    }
    ReadMachine.reset();
    Table.clear();
}

}  // namespace tcpip
