// Overlapped requests told to a completion port: the layer beside the base provider, in turn within one run.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

#include "bench/provider/bench_sockets.h"
#include "bench/provider/benchmarks.h"
#include "bench/provider/kernel_peers.h"
#include "bench/provider/paired_run.h"

namespace {

/// A connected socket with its completion port.
class PortSocket {
  public:
    PortSocket(Through through, std::uint16_t port)
        : socket_(ConnectedBenchSocket(through, port)),
          port_(CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket_), nullptr, 0, 0)) {
        Check(port_ != nullptr, "CreateIoCompletionPort");
    }
    ~PortSocket() {
        closesocket(socket_);
        CloseHandle(port_);
    }
    PortSocket(const PortSocket&) = delete;
    PortSocket& operator=(const PortSocket&) = delete;

    void PingPong(int count) {
        char bytes[64] = {};
        for (int i = 0; i < count; ++i) {
            StartSend(bytes, sizeof(bytes));
            Check(Next() == sizeof(bytes), "the send's packet");
            for (DWORD got = 0; got < sizeof(bytes);) {
                StartReceive(bytes + got, static_cast<ULONG>(sizeof(bytes) - got));
                got += Next();
            }
        }
    }

    void Stream(std::vector<char>& bytes, int count) {
        for (int i = 0; i < count; ++i) {
            StartSend(bytes.data(), static_cast<ULONG>(bytes.size()));
            Check(Next() == bytes.size(), "the send's packet");
        }
    }

  private:
    void StartSend(char* bytes, ULONG length) {
        overlapped_ = {};
        WSABUF buffer = {length, bytes};
        CheckStarted(WSASend(socket_, &buffer, 1, nullptr, 0, &overlapped_, nullptr), "WSASend");
    }

    void StartReceive(char* bytes, ULONG length) {
        overlapped_ = {};
        WSABUF buffer = {length, bytes};
        DWORD flags = 0;
        CheckStarted(WSARecv(socket_, &buffer, 1, nullptr, &flags, &overlapped_, nullptr), "WSARecv");
    }

    static void CheckStarted(int result, const char* what) {
        Check(result == 0 || WSAGetLastError() == WSA_IO_PENDING, what);
    }

    DWORD Next() {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        Check(GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, INFINITE) && bytes > 0,
              "GetQueuedCompletionStatus");
        return bytes;
    }

    SOCKET socket_;
    HANDLE port_;
    WSAOVERLAPPED overlapped_{};
};

void BenchPingPong(benchmark::State& state) {
    constexpr int kCount = 1000;
    const LoopbackServer baseEcho(LoopbackServer::Kind::kEcho);
    const LoopbackServer layerEcho(LoopbackServer::Kind::kEcho);
    PortSocket base(Through::kBase, baseEcho.Port());
    PortSocket layer(Through::kLayer, layerEcho.Port());
    RunPaired(
        state, kCount, [&] { base.PingPong(kCount); }, [&] { layer.PingPong(kCount); });
}

void BenchStream(benchmark::State& state) {
    constexpr int kCount = 50;
    const LoopbackServer sink(LoopbackServer::Kind::kSink);
    std::vector<char> bytes(1 << 20);
    // A connection settles to one of several speeds, which differ by half; so each batch has its own.
    const auto stream = [&](Through through) { PortSocket(through, sink.Port()).Stream(bytes, kCount); };
    RunPaired(
        state, kCount, [&] { stream(Through::kBase); }, [&] { stream(Through::kLayer); });
}

}  // namespace

void RegisterOverlappedBenchmarks() {
    const auto add = [](const char* name, void (*body)(benchmark::State&), int rounds) {
        benchmark::RegisterBenchmark(name, body)->Iterations(rounds)->Unit(benchmark::kMillisecond);
    };
    add("ratio/overlapped_ping_pong_64_bytes_layer_to_base", BenchPingPong, 31);
    add("ratio/overlapped_stream_1_mib_layer_to_base", BenchStream, 61);
}
