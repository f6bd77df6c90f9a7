// How many voices of a sampled sound one core renders in real time: a sampler playing a looped mono or
// stereo 16-bit clip of 44.1 kHz (SoundFonts hold mono ones), transposed, in a 48 kHz engine with blocks of 1024 frames, on one thread. Each
// run prints the cycle's cost, its share of the block's real-time budget, the voices that budget would
// hold, and the cost against a plain copy of the same stereo block measured in the same run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <vector>

#include "sound/sampler.h"
#include "sound/wav_sound.h"
#include "sampler_rig.h"

namespace {

constexpr int32_t frames = 1024;
constexpr double rate = 48000.0;

double processorSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

// Seconds for one plain copy of a stereo block.
double copySeconds() {
    std::vector<float> inL(frames), inR(frames), outL(frames), outR(frames);
    std::mt19937 random(1);
    for (float& x : inL) x = static_cast<float>(random()) * 1e-10f;
    inR = inL;
    constexpr int32_t rounds = 200000;
    const double start = processorSeconds();
    for (int32_t r = 0; r < rounds; ++r) {
        std::copy(inL.begin(), inL.end(), outL.begin());
        std::copy(inR.begin(), inR.end(), outR.begin());
        benchmark::DoNotOptimize(outL.data());
        benchmark::DoNotOptimize(outR.data());
        benchmark::ClobberMemory();
    }
    return (processorSeconds() - start) / rounds;
}

// Two seconds of noise as a clip held in memory, looped from its middle.
CSampleClip* noiseClip(int32_t channels) {
    auto* clip = new CSampleClip();
    clip->bits = 16;
    clip->channels = channels;
    clip->sampleRate = 44100.0f;
    clip->frames = 88200;
    const int64_t bytes = int64_t{clip->frames} * 2 * channels;
    auto data = std::make_unique<uint8_t[]>(static_cast<size_t>(bytes));
    std::mt19937 random(7);
    for (int64_t i = 0; i < bytes; ++i) data[static_cast<size_t>(i)] = static_cast<uint8_t>(random());
    clip->adopt(std::move(data), bytes);
    clip->end = clip->frames - 1;
    clip->loop = loopForward;
    clip->loopStart = clip->frames / 2;
    return clip;
}

void sampledVoices(benchmark::State& state) {
    const auto voices = static_cast<int32_t>(state.range(0));
    SamplerRig rig(frames, rate);
    CQV& engine = rig.engine;
    CSampler* sampler = rig.sampler;
    sampler->programs.deleteAll();
    sampler->programs.add(sampler->makeDefaultProgram());
    CSampleClip* clip = noiseClip(static_cast<int32_t>(state.range(1)));
    sampler->samplePool.add(clip);
    auto* sound = new CWavSound();
    sound->pool = &sampler->samplePool;
    sound->setBlockSize(frames);
    sound->setSampleRate(static_cast<float>(rate));
    sound->cutoff = 0.7f;
    sound->setSample(clip);
    CLayer& layer = *sampler->currentProgram()->layers.getAt(0);
    layer.sounds.deleteAll();
    layer.addSound(sound);
    for (int32_t k = 0; k < voices; ++k) sampler->postEvent(packMIDI(0x90, static_cast<uint8_t>(30 + k), 100));
    for (int32_t k = 0; k < 8; ++k) engine.runCycle(frames);
    if (sampler->soundingVoices() != voices) state.SkipWithError("not every note took a voice");

    const double copy = copySeconds();
    const double start = processorSeconds();
    for (auto _ : state) {
        engine.runCycle(frames);
        benchmark::DoNotOptimize(sampler->firstOutputChannel()->left());
    }
    const double perCycle = (processorSeconds() - start) / static_cast<double>(state.iterations());
    const double share = perCycle / (frames / rate);
    state.counters["voices"] = voices;
    state.counters["cycle_us"] = perCycle * 1e6;
    state.counters["realtime_share"] = share;
    state.counters["voices_per_core"] = voices / share;
    state.counters["ratio_to_copy"] = perCycle / copy;
}

}  // namespace

BENCHMARK(sampledVoices)->ArgsProduct({{1, 16, 64}, {1, 2}})->ArgNames({"voices", "channels"})->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
