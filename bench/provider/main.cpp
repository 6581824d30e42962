// Benchmarks of the loaded layer: each operation beside the same call on the base provider, and the ratios
// that the project holds itself to. Run it pinned to one CPU.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "bench/provider/bench_sockets.h"
#include "bench/provider/benchmarks.h"
#include "bench/provider/kernel_peers.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    const ConnectionBacklog destination;
    const LoopbackServer echo(LoopbackServer::Kind::kEcho);
    const LoopbackServer verdict(LoopbackServer::Kind::kVerdict);
    const LoopbackServer sink(LoopbackServer::Kind::kSink);
    if (!StartBenchMachine(verdict.Port(), destination.Port(), sink.Port())) {
        std::fprintf(stderr, "the benchmark machine could not be started\n");
        return 1;
    }
    const BenchPeers peers{&destination, echo.Port(), verdict.Port()};
    RegisterRatioBenchmarks(peers);
    RegisterOverlappedBenchmarks();
    RegisterOperationBenchmarks(peers);
    benchmark::RunSpecifiedBenchmarks();
    StopBenchMachine();
    return 0;
}
