// What a message costs: making and writing a request, reading an answer, buffers of the arena beside malloc.
// The counter "allocations" is operator new's calls per round.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/messages/counted_allocations.h"
#include "messages/buffer_arena.h"
#include "messages/message_pool.h"

namespace {

constexpr std::uint32_t kRelayBlock = 131072;

void FillRequest(LSPAnalyzerMessage& request) {
    request.ProcessId = 4321;
    request.UserName = "DEMO\\alice";
    request.WindowTitle = "Main window of the application";
    request.ImageSigner = "Demo Signer";
    request.RemotePort = 443;
    request.SocketType = SOCK_STREAM;
    request.Operation = OpConnect;
}

/// Starts with an arena as the relay sets it up, and reports allocations per round.
class Round {
  public:
    explicit Round(benchmark::State& state) : state_(state) {
        TheBufferArena().Init(kRelayBlock);
        TakeRequest();
        TakeResponse();
        before_ = CountedAllocations();
    }
    ~Round() {
        const auto made = static_cast<double>(CountedAllocations() - before_);
        state_.counters["allocations"] = made / static_cast<double>(state_.iterations());
        DestroyMessagePool();
        DestroyBufferArena();
    }

  private:
    benchmark::State& state_;
    std::uint64_t before_ = 0;
};

/// As bind, connect and close send it: a message of its own, on the heap.
void LocalRequest(benchmark::State& state) {
    const Round round(state);
    for (auto _ : state) {
        LSPAnalyzerMessage request;
        FillRequest(request);
        benchmark::DoNotOptimize(request.Serialize());
    }
}
BENCHMARK(LocalRequest);

/// As sends and receives send it: from the pool, on the arena.
void PooledRequestWritten(benchmark::State& state) {
    const Round round(state);
    for (auto _ : state) {
        const PooledRequest request = TakeRequest();
        FillRequest(*request);
        benchmark::DoNotOptimize(request->Serialize());
    }
}
BENCHMARK(PooledRequestWritten);

/// The same with relayed data, which must not be copied: the time may not grow with it.
void PooledRequestWithData(benchmark::State& state) {
    const Round round(state);
    std::vector<unsigned char> data(static_cast<std::size_t>(state.range(0)));
    const BufferPiece piece{static_cast<std::uint32_t>(data.size()), data.data()};
    for (auto _ : state) {
        const PooledRequest request = TakeRequest();
        request->SetDataBuffers(&piece, 1, 0, false);
        FillRequest(*request);
        benchmark::DoNotOptimize(request->Serialize());
    }
}
BENCHMARK(PooledRequestWithData)->Arg(4096)->Arg(1 << 20);

std::vector<unsigned char> AnswerFrame() {
    LSPAnalyzerMessageResponse answer;
    answer.Serialize();
    std::vector<unsigned char> frame;
    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;
    answer.GetAllBuffers(pieces, count, false);
    for (std::uint32_t index = 0; index < count; ++index) {
        frame.insert(frame.end(), pieces[index].data, pieces[index].data + pieces[index].length);
    }
    delete[] pieces;
    return frame;
}

/// An answer as it is received: 8 bytes, then the rest.
void AnswerRead(benchmark::State& state) {
    const Round round(state);
    const std::vector<unsigned char> frame = AnswerFrame();
    for (auto _ : state) {
        const PooledResponse answer = TakeResponse();
        answer->ClearBuffers();
        const BufferPiece header = answer->MessageBase::AllocateBuffer(8);
        std::memcpy(header.data, frame.data(), header.length);
        answer->AddDataBuffer(header, false);
        const auto missing = static_cast<std::uint32_t>(-answer->GetExcessLength());
        const BufferPiece rest = answer->MessageBase::AllocateBuffer(missing);
        std::memcpy(rest.data, frame.data() + 8, rest.length);
        answer->AddDataBuffer(rest, false);
        benchmark::DoNotOptimize(answer->GetExcessLength() == 0 && answer->Deserialize());
    }
}
BENCHMARK(AnswerRead);

// Relay buffers: `range` of them in use, the oldest goes when a new one comes.
template <unsigned char* (*Take)(std::uint32_t), void (*Give)(unsigned char*)>
void RelayBuffers(benchmark::State& state) {
    const Round round(state);
    std::vector<unsigned char*> inUse(static_cast<std::size_t>(state.range(0)), nullptr);
    std::size_t next = 0;
    for (auto _ : state) {
        Give(inUse[next]);
        inUse[next] = Take(4096);
        inUse[next][0] = 1;
        next = next + 1 == inUse.size() ? 0 : next + 1;
    }
    for (unsigned char* buffer : inUse)
        Give(buffer);
}

unsigned char* MallocTake(std::uint32_t size) {
    return static_cast<unsigned char*>(std::malloc(size));
}
void MallocGive(unsigned char* memory) {
    std::free(memory);
}
void Arena(benchmark::State& state) {
    RelayBuffers<ArenaAlloc, ArenaFree>(state);
}
void Malloc(benchmark::State& state) {
    RelayBuffers<MallocTake, MallocGive>(state);
}
BENCHMARK(Arena)->Arg(1)->Arg(16)->Arg(1000);
BENCHMARK(Malloc)->Arg(1)->Arg(16)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
