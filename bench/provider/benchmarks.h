// The groups of benchmarks, registered by main once the servers listen.
#pragma once

#include <cstdint>

class ConnectionBacklog;

struct BenchPeers {
    const ConnectionBacklog* destination;  ///< of the connects; outlives the benchmarks
    std::uint16_t echoPort;
    std::uint16_t verdictPort;
};

/// Ratios of the layer to its reference: batches of both in turn, in one run.
void RegisterRatioBenchmarks(const BenchPeers& peers);

/// Every forwarded operation through the layer and on the base provider.
void RegisterOperationBenchmarks(const BenchPeers& peers);

/// Overlapped requests through the layer and on the base provider, as ratios.
void RegisterOverlappedBenchmarks();
