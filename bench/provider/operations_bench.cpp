// See operations_bench.cpp.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <benchmark/benchmark.h>
#include <windows.h>

#include <string>

#include "bench/provider/bench_sockets.h"
#include "bench/provider/benchmarks.h"

namespace {

using Operation = void (*)(SOCKET);

struct OperationCase {
    const char* name;
    Operation run;
};

const OperationCase kOperations[] = {
    {"getsockname",
     [](SOCKET s) {
         sockaddr_in name;
         int length = sizeof(name);
         Check(getsockname(s, reinterpret_cast<sockaddr*>(&name), &length) == 0, "getsockname");
     }},
    {"getpeername",
     [](SOCKET s) {
         sockaddr_in name;
         int length = sizeof(name);
         Check(getpeername(s, reinterpret_cast<sockaddr*>(&name), &length) == 0, "getpeername");
     }},
    {"getsockopt_rcvbuf",
     [](SOCKET s) {
         int value;
         int length = sizeof(value);
         Check(getsockopt(s, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<char*>(&value), &length) == 0,
               "getsockopt");
     }},
    {"setsockopt_nodelay",
     [](SOCKET s) {
         const int on = 1;
         Check(setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on)) == 0,
               "setsockopt");
     }},
    {"ioctlsocket_fionread",
     [](SOCKET s) {
         u_long available = 0;
         Check(ioctlsocket(s, FIONREAD, &available) == 0, "ioctlsocket");
     }},
    {"select_writable",
     [](SOCKET s) {
         fd_set set;
         FD_ZERO(&set);
         FD_SET(s, &set);
         timeval none{0, 0};
         Check(select(0, nullptr, &set, nullptr, &none) == 1, "select");
     }},
    {"send_recv_64_bytes_over_echo",
     [](SOCKET s) {
         char buffer[64] = {};
         Check(send(s, buffer, sizeof(buffer), 0) == sizeof(buffer), "send");
         int got = 0;
         while (got < static_cast<int>(sizeof(buffer))) {
             const int more = recv(s, buffer + got, static_cast<int>(sizeof(buffer)) - got, 0);
             Check(more > 0, "recv");
             got += more;
         }
     }},
};

void BenchOperation(benchmark::State& state, Operation run, Through through, const BenchPeers& peers) {
    const SOCKET s = ConnectedBenchSocket(through, peers.echoPort);
    for (auto _ : state)
        run(s);
    closesocket(s);
}

void BenchSocketAndClose(benchmark::State& state, Through through) {
    for (auto _ : state)
        closesocket(NewBenchSocket(through));
}

void BenchDatagramSend(benchmark::State& state, Through through) {
    const SOCKET receiver = NewBenchSocket(Through::kBase, SOCK_DGRAM);
    sockaddr_in name = LoopbackAddress(0);
    int length = sizeof(name);
    Check(bind(receiver, reinterpret_cast<sockaddr*>(&name), length) == 0, "bind");
    Check(getsockname(receiver, reinterpret_cast<sockaddr*>(&name), &length) == 0, "getsockname");
    const SOCKET sender = NewBenchSocket(through, SOCK_DGRAM);
    char buffer[64] = {};
    for (auto _ : state) {
        Check(sendto(sender, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&name), length) > 0,
              "sendto");
        Check(recv(receiver, buffer, sizeof(buffer), 0) > 0, "recv");
    }
    closesocket(sender);
    closesocket(receiver);
}

}  // namespace

void RegisterOperationBenchmarks(const BenchPeers& peers) {
    for (const Through through : {Through::kBase, Through::kLayer}) {
        const std::string suffix = through == Through::kBase ? "/base" : "/layer";
        benchmark::RegisterBenchmark(("socket_closesocket" + suffix).c_str(),
                                     [=](benchmark::State& state) { BenchSocketAndClose(state, through); });
        for (const OperationCase& operation : kOperations) {
            benchmark::RegisterBenchmark((operation.name + suffix).c_str(), [=](benchmark::State& state) {
                BenchOperation(state, operation.run, through, peers);
            });
        }
        benchmark::RegisterBenchmark(("sendto_recv_64_bytes" + suffix).c_str(),
                                     [=](benchmark::State& state) { BenchDatagramSend(state, through); });
    }
}
