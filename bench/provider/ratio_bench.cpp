// See ratio_bench.cpp.
#include <benchmark/benchmark.h>

#include "bench/provider/bench_sockets.h"
#include "bench/provider/benchmarks.h"
#include "bench/provider/kernel_peers.h"
#include "bench/provider/paired_run.h"

namespace {

void PingPong(SOCKET s, int count) {
    char buffer[64] = {};
    for (int i = 0; i < count; ++i) {
        Check(send(s, buffer, sizeof(buffer), 0) == sizeof(buffer), "send");
        for (int got = 0; got < static_cast<int>(sizeof(buffer));) {
            const int more = recv(s, buffer + got, static_cast<int>(sizeof(buffer)) - got, 0);
            Check(more > 0, "recv");
            got += more;
        }
    }
}

void Send(SOCKET s, int count) {
    const char buffer[64] = {};
    for (int i = 0; i < count; ++i)
        Check(send(s, buffer, sizeof(buffer), 0) == sizeof(buffer), "send");
}

void ConnectAndClose(Through through, const sockaddr_in& address, int count) {
    for (int i = 0; i < count; ++i) {
        const SOCKET s = NewBenchSocket(through);
        Check(connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
        Check(closesocket(s) == 0, "closesocket");
    }
}

void BenchPingPong(benchmark::State& state, const BenchPeers& peers) {
    constexpr int kCount = 2000;
    LoopbackServer secondEcho(LoopbackServer::Kind::kEcho);
    const SOCKET base = ConnectedBenchSocket(Through::kBase, peers.echoPort);
    const SOCKET layer = ConnectedBenchSocket(Through::kLayer, secondEcho.Port());
    RunPaired(
        state, kCount, [&] { PingPong(base, kCount); }, [&] { PingPong(layer, kCount); });
    closesocket(layer);
    closesocket(base);
}

void BenchUnaskedConnect(benchmark::State& state, const BenchPeers& peers) {
    constexpr int kCount = 200;
    const sockaddr_in address = LoopbackAddress(peers.destination->Port());
    RunPaired(
        state, kCount, [&] { ConnectAndClose(Through::kBase, address, kCount); },
        [&] { ConnectAndClose(Through::kLayer, address, kCount); }, [&] { peers.destination->Empty(); });
}

void BenchVerdictConnect(benchmark::State& state, const BenchPeers& peers) {
    constexpr int kCount = 200;
    const sockaddr_in address = PublicAddress();
    RunPaired(
        state, kCount,
        [&] {
            for (int i = 0; i < kCount; ++i)
                KernelConnectWithVerdict(peers.verdictPort, peers.destination->Port());
        },
        [&] { ConnectAndClose(Through::kLayer, address, kCount); }, [&] { peers.destination->Empty(); });
}

void BenchVerdictBesideDirect(benchmark::State& state, const BenchPeers& peers) {
    constexpr int kCount = 200;
    const sockaddr_in address = PublicAddress();
    RunPaired(
        state, kCount,
        [&] {
            for (int i = 0; i < kCount; ++i)
                KernelConnectAndClose(peers.destination->Port());
        },
        [&] { ConnectAndClose(Through::kLayer, address, kCount); }, [&] { peers.destination->Empty(); });
}

// Of a public connection that nothing is reported of, beside one that the layer has no business with.
void BenchUnreportedSend(benchmark::State& state, const BenchPeers&) {
    constexpr int kCount = 2000;
    const LoopbackServer sink(LoopbackServer::Kind::kSink);
    const SOCKET exempt = ConnectedBenchSocket(Through::kLayer, sink.Port());
    const SOCKET judged = ConnectedBenchSocket(Through::kLayer, PublicSinkAddress());
    RunPaired(
        state, kCount, [&] { Send(exempt, kCount); }, [&] { Send(judged, kCount); });
    closesocket(judged);
    closesocket(exempt);
}

}  // namespace

void RegisterRatioBenchmarks(const BenchPeers& peers) {
    const auto add = [&](const char* name, void (*body)(benchmark::State&, const BenchPeers&), int rounds) {
        benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { body(state, peers); })
            ->Iterations(rounds)
            ->Unit(benchmark::kMillisecond);
    };
    add("ratio/ping_pong_64_bytes_layer_to_base", BenchPingPong, 31);
    add("ratio/send_64_bytes_unreported_to_exempt", BenchUnreportedSend, 31);
    add("ratio/unasked_connect_layer_to_base", BenchUnaskedConnect, 31);
    add("ratio/verdict_connect_to_same_system_calls", BenchVerdictConnect, 31);
    add("ratio/verdict_connect_to_direct_connect", BenchVerdictBesideDirect, 31);
}
