// Cost of the four time effects at 48 kHz in 1024-frame blocks, per stereo sample, with a loud input
// and with silence. A silent reverb is idle and only looks at its input; the others do the same work
// either way, since their states never fall into denormal numbers.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "fx/chorus.h"
#include "fx/delay.h"
#include "fx/phaser.h"
#include "fx/reverb.h"

namespace {

constexpr int32_t frames = 1024;

template <typename Effect> void timeEffect(benchmark::State& state) {
    const bool loud = state.range(0) != 0;
    Effect fx;
    fx.setSampleRate(48000.0f);
    fx.setEnabled(true);
    std::vector<float> inL(frames), inR(frames), outL(frames), outR(frames);
    if (loud) {
        for (int32_t i = 0; i < frames; ++i) {
            inL[i] = static_cast<float>(std::sin(0.031 * i) + 0.3 * std::sin(0.57 * i));
            inR[i] = static_cast<float>(std::cos(0.023 * i) - 0.3 * std::sin(0.71 * i));
        }
    }
    // A few seconds first, so that lines are full and a silent reverb has settled idle.
    for (int32_t block = 0; block < 200; ++block)
        fx.process(inL.data(), inR.data(), outL.data(), outR.data(), frames);
    for (auto _ : state) {
        fx.process(inL.data(), inR.data(), outL.data(), outR.data(), frames);
        benchmark::DoNotOptimize(outL.data());
        benchmark::DoNotOptimize(outR.data());
        benchmark::ClobberMemory();
    }
    // Seconds per stereo sample; the report prints it with an "n" for nanoseconds.
    state.counters["per_sample"] = benchmark::Counter(frames, benchmark::Counter::kIsIterationInvariantRate |
                                                                  benchmark::Counter::kInvert);
}

BENCHMARK_TEMPLATE(timeEffect, CDelay)->ArgName("loud")->Arg(1)->Arg(0);
BENCHMARK_TEMPLATE(timeEffect, CReverb)->ArgName("loud")->Arg(1)->Arg(0);
BENCHMARK_TEMPLATE(timeEffect, CChorus)->ArgName("loud")->Arg(1)->Arg(0);
BENCHMARK_TEMPLATE(timeEffect, CPhaser)->ArgName("loud")->Arg(1)->Arg(0);

} // namespace

BENCHMARK_MAIN();
