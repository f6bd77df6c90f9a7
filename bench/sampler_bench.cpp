// How many voices of a factory program one core renders in real time: a sampler holding 1 to 64 notes
// at 48 kHz in blocks of 1024 frames, on one thread. Each run prints the cycle's cost, its share of the
// block's real-time budget, and the voices that budget would hold at that cost per voice. "Synth" is a
// typical program; "Trance" (both sends) and "Strings" (chorus and reverb) are the heaviest.

#include <benchmark/benchmark.h>

#include <ctime>

#include "sound/sampler.h"
#include "sampler_rig.h"

namespace {

constexpr int32_t frames = 1024;
constexpr double rate = 48000.0;

void renderVoices(benchmark::State& state) {
    const auto program = static_cast<int32_t>(state.range(0));
    const auto voices = static_cast<int32_t>(state.range(1));
    SamplerRig rig(frames, rate);
    CQV& engine = rig.engine;
    CSampler* sampler = rig.sampler;
    sampler->setProgram(program);
    CString name;
    sampler->factoryProgram(nullptr, program, &name, false);
    state.SetLabel(name.c_str());
    for (int32_t k = 0; k < voices; ++k) sampler->postEvent(packMIDI(0x90, static_cast<uint8_t>(30 + k), 100));
    for (int32_t k = 0; k < 8; ++k) engine.runCycle(frames);
    if (sampler->soundingVoices() != voices) state.SkipWithError("not every note took a voice");

    // Processor time rather than wall time, so that other work on the machine does not count.
    const std::clock_t start = std::clock();
    for (auto _ : state) {
        engine.runCycle(frames);
        benchmark::DoNotOptimize(sampler->firstOutputChannel()->left());
    }
    const double spent = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    const double perCycle = spent / static_cast<double>(state.iterations());
    const double share = perCycle / (frames / rate);
    state.counters["voices"] = voices;
    state.counters["cycle_us"] = perCycle * 1e6;
    state.counters["realtime_share"] = share;
    state.counters["voices_per_core"] = voices / share;
}

}  // namespace

constexpr int64_t synth = 24, trance = 25, strings = 27;
BENCHMARK(renderVoices)
    ->ArgsProduct({{synth}, {1, 16, 64}})
    ->ArgsProduct({{trance, strings}, {64}})
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
