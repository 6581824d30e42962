// What a classification costs, beside public engines when they are installed, and how the costs grow. Every
// engine must give every packet its protocol before anything is measured. Pin it and repeat:
//     taskset -c 0 classify_bench --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
// Mix: time per packet of the whole mix in a long shuffled order. Packet, Long, Worst: one packet over and
// over.
// Hostile: a pattern and data that cost a backtracking engine exponential time; ns per byte and state stay
// level.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "bench/protocols/first_packets.h"
#include "bench/protocols/reference_engines.h"
#include "protocols/compiled_patterns.h"
#include "protocols/regexp.h"

namespace {

using Classifier = std::function<std::uint32_t(const ProtocolSample&)>;

const std::vector<FirstPacket>& Mix() {
    static const std::vector<FirstPacket> mix = FirstPackets();
    return mix;
}

std::uint32_t ByThisLibrary(const ProtocolSample& given) {
    ProtocolSample sample = given;
    ClassifyConnection(sample);
    return sample.protocol;
}

Classifier BySimulation() {
    auto patterns = std::make_shared<CompiledPatterns>();
    if (patterns->Compile(ProtocolTable, CompiledPatterns::Engine::kSimulated) != 0) std::abort();
    return [patterns](const ProtocolSample& given) {
        ProtocolSample sample = given;
        patterns->Classify(sample);
        return sample.protocol;
    };
}

/// Packets of the mix in an order too long for the branch predictor to learn.
const std::vector<std::uint8_t>& MixOrder() {
    static const std::vector<std::uint8_t> order = [] {
        std::vector<std::uint8_t> shuffled;
        for (int round = 0; round < 1000; ++round) {
            for (std::size_t i = 0; i < Mix().size(); ++i)
                shuffled.push_back(static_cast<std::uint8_t>(i));
        }
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
        return shuffled;
    }();
    return order;
}

template <typename Classify>
void RunMix(benchmark::State& state, const Classify& classify) {
    std::vector<ProtocolSample> samples;
    for (const FirstPacket& packet : Mix())
        samples.push_back(SampleOf(packet));
    const std::vector<std::uint8_t>& order = MixOrder();
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(classify(samples[order[next]]));
        if (++next == order.size()) next = 0;
    }
}

template <typename Classify>
void RunOne(benchmark::State& state, const Classify& classify, const FirstPacket& packet) {
    const ProtocolSample sample = SampleOf(packet);
    for (auto _ : state)
        benchmark::DoNotOptimize(classify(sample));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(packet.data.size()));
}

void CompileTable(benchmark::State& state) {
    for (auto _ : state) {
        auto patterns = std::make_unique<CompiledPatterns>();
        if (patterns->Compile(ProtocolTable) != 0) std::abort();
    }
}

/// (a?)(a?)...aa... on as many bytes: n optional pieces and n required ones.
void Hostile(benchmark::State& state) {
    const auto pieces = static_cast<std::size_t>(state.range(0));
    std::string pattern;
    for (std::size_t i = 0; i < pieces; ++i)
        pattern += "(a?)";
    const std::string data(pieces, 'a');
    pattern += data;
    Regexp regexp;
    RegMatcher matcher;
    if (RegexpCompile(regexp, pattern.c_str()) != 0 || RegMatcherInit(matcher, regexp.stateCount) != 0)
        std::abort();
    const DataChunk chunk{static_cast<std::int32_t>(data.size()), data.data()};
    for (auto _ : state) {
        if (RegexpMatch(matcher, regexp, &chunk, 1, 0) != kMatch) std::abort();
    }
    // Inverted, a rate of iterations scaled by the work of one gives the time of a unit of work.
    state.counters["per_byte_and_state"] =
        benchmark::Counter(static_cast<double>(pieces) * regexp.stateCount,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

bool AnswersRight(const std::string& name, const Classifier& classify,
                  const std::vector<FirstPacket>& packets) {
    bool right = true;
    for (const FirstPacket& packet : packets) {
        const std::uint32_t answer = classify(SampleOf(packet));
        if (answer == packet.wanted) continue;
        std::fprintf(stderr, "%s takes %s for %s\n", name.c_str(), packet.name.c_str(),
                     GetProtocolName(answer));
        right = false;
    }
    return right;
}

benchmark::internal::Benchmark* WithExtremes(benchmark::internal::Benchmark* bench) {
    return bench
        ->ComputeStatistics(
            "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
        ->ComputeStatistics(
            "max", [](const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); });
}

template <typename Classify>
bool Register(const std::string& engine, const Classify& classify) {
    static const std::vector<FirstPacket> longData = LongData();
    static const std::vector<FirstPacket> worstPackets = WorstData(1400);
    static const std::vector<FirstPacket> worstLongData = WorstData(64 * 1024);
    for (const auto* packets : {&Mix(), &longData, &worstPackets, &worstLongData}) {
        if (!AnswersRight(engine, classify, *packets)) return false;
    }
    WithExtremes(benchmark::RegisterBenchmark(
        ("Mix/" + engine).c_str(), [classify](benchmark::State& state) { RunMix(state, classify); }));
    const auto one = [&](const char* group, const FirstPacket& packet) {
        WithExtremes(benchmark::RegisterBenchmark(
            (std::string(group) + packet.name + "/" + engine).c_str(),
            [classify, &packet](benchmark::State& state) { RunOne(state, classify, packet); }));
    };
    for (const FirstPacket& packet : Mix())
        one("Packet/", packet);
    for (const FirstPacket& packet : longData)
        one("Long/", packet);
    for (const FirstPacket& packet : worstPackets)
        one("Worst1400/", packet);
    for (const FirstPacket& packet : worstLongData)
        one("Worst64k/", packet);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (CompileProtocolPatterns() != 0) return 1;
    bool right = Register("qxlsp", &ByThisLibrary);
    right = Register("simulation", BySimulation()) && right;
    for (const ReferenceEngine& engine : MakeReferenceEngines()) {
        right = Register(engine.name, engine.classify) && right;
    }
    if (!right) return 1;
    WithExtremes(benchmark::RegisterBenchmark("CompileTable", CompileTable));
    WithExtremes(benchmark::RegisterBenchmark("Hostile", Hostile))->RangeMultiplier(2)->Range(8, 1024);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
