// Two ways of doing the same, timed in turn within one run.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>

using Batch = std::function<void()>;

/// Runs a batch of the reference and one of the subject in turn, the order changing each round, and reports
/// the time ratio subject / reference per round as median, minimum and maximum. `tidyUp` runs after every
/// batch, untimed.
void RunPaired(
    benchmark::State& state, int operations, const Batch& reference, const Batch& subject,
    const Batch& tidyUp = [] {});
