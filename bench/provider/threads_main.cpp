// How forwarded calls of several threads get on beside each other: the same call, each thread with a socket
// of its own, on one, two and eight threads, through the layer and on the base provider alone, and work that
// shares nothing, as the measure of what the machine gives. The threads are spread over the CPUs that the
// program may use, so it is not to be pinned to one.
#include <winsock2.h>

#include <pthread.h>
#include <sched.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "apps/shared/run_main.h"
#include "bench/provider/bench_sockets.h"
#include "bench/provider/kernel_peers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostThreads = 8;
constexpr int kCallsPerBatch = 100;

/// What a thread does over and over; `thread` counts from 0.
using Batch = std::function<void(std::size_t thread)>;

/// The calls of one thread, written by it alone; on a cache line of its own, so that counting costs nothing.
struct alignas(64) CallCount {
    std::atomic<std::uint64_t> calls{0};
};

/// The CPUs that the program may use.
std::vector<int> UsableCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
    }
    return cpus;
}

/// Keeps the calling thread on its share of the CPUs: left alone, two busy threads stay on one CPU for long
/// when other programs are at work.
void StayOnCpuOf(std::size_t thread) {
    static const std::vector<int> cpus = UsableCpus();
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpus[thread % cpus.size()], &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

std::uint64_t Sum(const std::vector<CallCount>& counts) {
    std::uint64_t sum = 0;
    for (const CallCount& count : counts)
        sum += count.calls.load(std::memory_order_relaxed);
    return sum;
}

/// Millions of calls per second of `threads` threads together, numbered from `first` on, while all of them
/// are at it.
double MeasureRate(const Batch& batch, std::size_t first, std::size_t threads,
                   std::chrono::milliseconds window) {
    std::vector<CallCount> counts(threads);
    std::atomic<bool> stop{false};
    std::vector<std::thread> running;
    running.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
            StayOnCpuOf(first + i);
            for (std::uint64_t calls = kCallsPerBatch; !stop.load(std::memory_order_relaxed);
                 calls += kCallsPerBatch) {
                batch(first + i);
                counts[i].calls.store(calls, std::memory_order_relaxed);
            }
        });
    }
    for (const CallCount& count : counts) {
        while (count.calls.load(std::memory_order_relaxed) == 0)
            std::this_thread::yield();
    }
    const std::uint64_t before = Sum(counts);
    const auto start = Clock::now();
    std::this_thread::sleep_for(window);
    const std::uint64_t after = Sum(counts);
    const std::chrono::duration<double, std::micro> time = Clock::now() - start;
    stop = true;
    for (std::thread& thread : running)
        thread.join();
    return static_cast<double>(after - before) / time.count();
}

/// The rates of one side, a value per round each.
struct Side {
    Side(const char* sideName, Batch sideBatch) : name(sideName), batch(std::move(sideBatch)) {}

    const char* name;
    Batch batch;
    std::vector<double> oneThread;
    std::vector<double> twoThreads;
    std::vector<double> eightThreads;
    std::vector<double> twoToOne;
    std::vector<double> eightToTwo;

    void PlayRound(std::chrono::milliseconds window) {
        // One thread is measured on each of the two CPUs, which may not be equally fast.
        const double one = (MeasureRate(batch, 0, 1, window) + MeasureRate(batch, 1, 1, window)) / 2;
        const double two = MeasureRate(batch, 0, 2, window);
        const double eight = MeasureRate(batch, 0, kMostThreads, window);
        oneThread.push_back(one);
        twoThreads.push_back(two);
        eightThreads.push_back(eight);
        twoToOne.push_back(two / one);
        eightToTwo.push_back(eight / two);
    }
};

void PrintSpread(const char* what, std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::printf("  %-24s %8.2f (%.2f to %.2f)\n", what, values[values.size() / 2], values.front(),
                values.back());
}

void Print(const Side& side) {
    std::printf("%s\n", side.name);
    PrintSpread("1 thread, M calls/s", side.oneThread);
    PrintSpread("2 threads, M calls/s", side.twoThreads);
    PrintSpread("8 threads, M calls/s", side.eightThreads);
    PrintSpread("2 threads to 1", side.twoToOne);
    PrintSpread("8 threads to 2", side.eightToTwo);
}

Batch CallsOn(std::vector<SOCKET> sockets) {
    return [sockets = std::move(sockets)](std::size_t thread) {
        for (int i = 0; i < kCallsPerBatch; ++i) {
            sockaddr_in name;
            int length = sizeof(name);
            Check(getpeername(sockets[thread], reinterpret_cast<sockaddr*>(&name), &length) == 0,
                  "getpeername");
        }
    };
}

std::vector<SOCKET> ConnectedSockets(Through through, std::uint16_t port) {
    std::vector<SOCKET> sockets;
    for (std::size_t i = 0; i < kMostThreads; ++i)
        sockets.push_back(ConnectedBenchSocket(through, port));
    return sockets;
}

/// Multiplications that hang on each other, about as long as a call.
void ShareNothing(std::size_t thread) {
    volatile std::uint32_t result = static_cast<std::uint32_t>(thread);
    std::uint32_t value = result;
    for (int i = 0; i < 100 * kCallsPerBatch; ++i)
        value = value * 1664525U + 1013904223U;
    result = value;
}

int Run(CLI::App& app, const std::function<void()>& parse) {
    int rounds = 31;
    int milliseconds = 50;
    app.add_option("--rounds", rounds, "how often everything is measured")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--milliseconds", milliseconds, "the length of one measurement")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    parse();

    const ConnectionBacklog destination;
    if (!StartBenchMachine(destination.Port(), destination.Port(), destination.Port())) return 1;
    Side sides[] = {
        {"through the layer", CallsOn(ConnectedSockets(Through::kLayer, destination.Port()))},
        {"base provider alone", CallsOn(ConnectedSockets(Through::kBase, destination.Port()))},
        {"work that shares nothing", ShareNothing},
    };
    for (int round = 0; round < rounds; ++round) {
        for (Side& side : sides)
            side.PlayRound(std::chrono::milliseconds(milliseconds));
    }
    for (const Side& side : sides)
        Print(side);
    StopBenchMachine();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("provider_threads", "Measures forwarded calls on several threads.", Run, argc, argv);
}
