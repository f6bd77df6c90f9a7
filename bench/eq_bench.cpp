// Cost of the EQ per stereo sample at 48 kHz in blocks of 1024 frames: one band, and a channel strip's
// four bands in place. Loud blocks are printed beside a plain copy of the same block measured in the same
// run. Silent blocks are printed beside loud ones: the filter memory is set to 0 once it falls below
// 1e-10, so silence after a loud block must cost what the loud block cost, never the many times more of
// arithmetic on denormal numbers.

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <vector>

#include "engine/eq.h"

namespace {

constexpr int32_t frames = 1024;
constexpr float sampleRate = 48000.0f;

struct Block {
    std::vector<float> left = std::vector<float>(frames), right = std::vector<float>(frames);
};

Block noise() {
    Block b;
    std::mt19937 random(3);
    std::uniform_real_distribution<float> value(-0.8f, 0.8f);
    for (int32_t i = 0; i < frames; ++i) {
        b.left[i] = value(random);
        b.right[i] = value(random);
    }
    return b;
}

// The four bands of a strip with every band on and audibly set: high shelf, two peaks, low shelf.
struct Strip {
    std::array<std::unique_ptr<CEQ>, 4> bands = {
        std::make_unique<CEQ>(eqHighShelf, 10000.0f), std::make_unique<CEQ>(eqPeak, 2000.0f),
        std::make_unique<CEQ>(eqPeak, 800.0f), std::make_unique<CEQ>(eqLowShelf, 100.0f)};

    Strip() {
        const float gains[] = {-4.0f, 6.0f, -3.0f, 8.0f};
        const float qs[] = {0.7f, 1.5f, 0.9f, 0.1f};
        for (size_t k = 0; k < bands.size(); ++k) {
            bands[k]->gain = gains[k];
            bands[k]->Q = qs[k];
            bands[k]->setSampleRate(sampleRate);
        }
    }
    void process(const Block& in, Block& out) {
        std::copy(in.left.begin(), in.left.end(), out.left.begin());
        std::copy(in.right.begin(), in.right.end(), out.right.begin());
        for (auto& band : bands) band->process(out.left.data(), out.right.data(), out.left.data(), out.right.data(), frames);
    }
};

// The filter memory of every band, to put a strip back to the moment a loud block ended.
struct Memory {
    std::array<std::array<float, 8>, 4> bands{};

    void take(const Strip& s) {
        for (size_t k = 0; k < bands.size(); ++k) {
            const CEQ& e = *s.bands[k];
            bands[k] = {e.x1L, e.x2L, e.y1L, e.y2L, e.x1R, e.x2R, e.y1R, e.y2R};
        }
    }
    void give(Strip& s) const {
        for (size_t k = 0; k < bands.size(); ++k) {
            CEQ& e = *s.bands[k];
            const auto& m = bands[k];
            e.x1L = m[0], e.x2L = m[1], e.y1L = m[2], e.y2L = m[3];
            e.x1R = m[4], e.x2R = m[5], e.y1R = m[6], e.y2R = m[7];
        }
    }
};

// This thread's processor time: the figures and their references stay comparable on a busy machine.
double threadNanoseconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

template <class Fn>
double nanosecondsPerSample(int64_t rounds, Fn fn) {
    const double start = threadNanoseconds();
    for (int64_t r = 0; r < rounds; ++r) {
        fn();
        benchmark::ClobberMemory();
    }
    return (threadNanoseconds() - start) / static_cast<double>(rounds * frames);
}

double copyNanoseconds(int64_t rounds) {
    const Block in = noise();
    Block out;
    return nanosecondsPerSample(rounds, [&] {
        std::copy(in.left.begin(), in.left.end(), out.left.begin());
        std::copy(in.right.begin(), in.right.end(), out.right.begin());
        benchmark::DoNotOptimize(out.left.data());
    });
}

double loudStripNanoseconds(int64_t rounds) {
    Strip strip;
    const Block in = noise();
    Block out;
    return nanosecondsPerSample(rounds, [&] { strip.process(in, out); });
}

void report(benchmark::State& state, double perSample, const char* reference, double referencePerSample) {
    state.counters["ns_per_stereo_sample"] = perSample;
    state.counters[reference] = perSample / referencePerSample;
    state.SetItemsProcessed(state.iterations() * frames);
}

template <class Fn>
double timeLoop(benchmark::State& state, Fn fn) {
    const double start = threadNanoseconds();
    for (auto _ : state) {
        fn();
        benchmark::ClobberMemory();
    }
    return (threadNanoseconds() - start) / static_cast<double>(state.iterations() * frames);
}

void oneBand(benchmark::State& state) {
    CEQ band(eqPeak, 1000.0f);
    band.gain = 6.0f;
    band.Q = 1.0f;
    band.setSampleRate(sampleRate);
    const Block in = noise();
    Block out;
    const double perSample = timeLoop(state, [&] {
        band.process(in.left.data(), in.right.data(), out.left.data(), out.right.data(), frames);
    });
    report(state, perSample, "ratio_to_copy", copyNanoseconds(std::max<int64_t>(state.iterations(), 1000)));
}

void stripLoud(benchmark::State& state) {
    Strip strip;
    const Block in = noise();
    Block out;
    const double perSample = timeLoop(state, [&] { strip.process(in, out); });
    report(state, perSample, "ratio_to_copy", copyNanoseconds(std::max<int64_t>(state.iterations(), 1000)));
}

// Every round starts where a loud block ended, so the whole tail decays inside the measured block.
void stripSilenceAfterLoud(benchmark::State& state) {
    Strip strip;
    Block out;
    strip.process(noise(), out);
    Memory afterLoud;
    afterLoud.take(strip);
    const Block silence;
    const double perSample = timeLoop(state, [&] {
        afterLoud.give(strip);
        strip.process(silence, out);
    });
    report(state, perSample, "ratio_to_loud", loudStripNanoseconds(std::max<int64_t>(state.iterations(), 1000)));
}

// Long silence: by now every state has been flushed to exact zeros.
void stripLongSilence(benchmark::State& state) {
    Strip strip;
    Block out;
    strip.process(noise(), out);
    const Block silence;
    for (int i = 0; i < 100; ++i) strip.process(silence, out);
    const double perSample = timeLoop(state, [&] { strip.process(silence, out); });
    report(state, perSample, "ratio_to_loud", loudStripNanoseconds(std::max<int64_t>(state.iterations(), 1000)));
}

}  // namespace

BENCHMARK(oneBand);
BENCHMARK(stripLoud);
BENCHMARK(stripSilenceAfterLoud);
BENCHMARK(stripLongSilence);

BENCHMARK_MAIN();
