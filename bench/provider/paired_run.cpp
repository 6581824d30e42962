// See paired_run.h.
#include "bench/provider/paired_run.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

double Microseconds(const Batch& batch) {
    const auto start = std::chrono::steady_clock::now();
    batch();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

void RunPaired(benchmark::State& state, int operations, const Batch& reference, const Batch& subject,
               const Batch& tidyUp) {
    std::vector<double> ratios;
    std::vector<double> referenceTimes;
    std::vector<double> subjectTimes;
    for (const Batch& batch : {reference, subject}) {
        batch();
        tidyUp();
    }
    bool referenceFirst = true;
    for (auto _ : state) {
        double times[2];
        for (int turn = 0; turn < 2; ++turn) {
            const bool isReference = (turn == 0) == referenceFirst;
            times[isReference ? 0 : 1] = Microseconds(isReference ? reference : subject) / operations;
            tidyUp();
        }
        referenceFirst = !referenceFirst;
        referenceTimes.push_back(times[0]);
        subjectTimes.push_back(times[1]);
        ratios.push_back(times[1] / times[0]);
    }
    const auto median = [](std::vector<double>& values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    };
    state.counters["ratio_median"] = median(ratios);
    state.counters["ratio_min"] = ratios.front();
    state.counters["ratio_max"] = ratios.back();
    state.counters["reference_us"] = median(referenceTimes);
    state.counters["subject_us"] = median(subjectTimes);
}
