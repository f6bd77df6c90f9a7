// Cost of the compressor, the bit crusher and the filter at 48 kHz in blocks of 1024 frames, in
// nanoseconds per stereo frame, for a loud block of noise and for a silent one. The silent case shows
// whether decaying states ever slow a kind down (the filter's flush is meant to keep it as cheap as the
// loud case).

#include <benchmark/benchmark.h>

#include <ctime>
#include <random>
#include <type_traits>
#include <vector>

#include "fx/bitcrusher.h"
#include "fx/compressor.h"
#include "fx/filter.h"

namespace {

constexpr int32_t frames = 1024;

// Processor time of the program, which runs the benchmark on one thread: other work on a busy machine
// does not count against the effect.
double cpuNanoseconds() {
    return static_cast<double>(std::clock()) * 1e9 / static_cast<double>(CLOCKS_PER_SEC);
}

template <typename Effect> void perFrame(benchmark::State& state) {
    const bool silent = state.range(0) != 0;
    Effect effect;
    effect.setSampleRate(48000.0f);
    effect.setEnabled(true);
    if constexpr (std::is_same_v<Effect, CFilterFX>) {
        effect.type = filterBandPass;
        effect.q = 0.7f;
        effect.setCutoff(0.3f);
    }
    std::vector<float> left(frames), right(frames), outL(frames), outR(frames);
    if (!silent) {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
        for (int32_t i = 0; i < frames; ++i) {
            left[i] = sample(random);
            right[i] = sample(random);
        }
    } else {
        // Ring the states first, so that the silence measures their decay rather than zeros from the start.
        std::vector<float> burst(frames, 0.5f);
        effect.process(burst.data(), burst.data(), outL.data(), outR.data(), frames);
    }

    const double start = cpuNanoseconds();
    for (auto _ : state) {
        effect.process(left.data(), right.data(), outL.data(), outR.data(), frames);
        benchmark::DoNotOptimize(outL.data());
        benchmark::DoNotOptimize(outR.data());
        benchmark::ClobberMemory();
    }
    const double spent = cpuNanoseconds() - start;
    state.counters["ns_per_frame"] = spent / (static_cast<double>(state.iterations()) * frames);
}

} // namespace

// silent:0 a block of loud noise, silent:1 silence after a burst.
BENCHMARK_TEMPLATE(perFrame, CCompressor)->ArgName("silent")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(perFrame, CBitcrusher)->ArgName("silent")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(perFrame, CFilterFX)->ArgName("silent")->Arg(0)->Arg(1);

BENCHMARK_MAIN();
