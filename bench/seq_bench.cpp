// Cost of one sequencer cycle while a dense song plays: 64 tracks, about 50,000 notes, looping, with
// the events counted, beside a plain copy of one block of stereo audio per track in the same run.

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include "support/song.h"

namespace {

void playDenseSong(benchmark::State& state) {
    const auto frames = static_cast<int32_t>(state.range(0));
    songtest::Song song(48000.0f, 120.0f, 64);
    songtest::populate(song, 4, 196, 9);
    song.engine.setBlockSize(frames);
    song.seq->setLoopRange(0, 3840 * 64);
    song.engine.setLoop(true);
    song.engine.start();
    song.runFor(frames * 8, frames);

    int64_t events = 0;
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        song.recorder->received.clear();
        song.cycle(frames);
        events += static_cast<int64_t>(song.recorder->received.size());
    }
    std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;

    std::vector<float> from(static_cast<size_t>(64) * frames * 2, 0.5f), to(from.size());
    const int64_t rounds = std::max<int64_t>(state.iterations(), 100);
    auto copyStart = std::chrono::steady_clock::now();
    for (int64_t r = 0; r < rounds; ++r) {
        std::copy(from.begin(), from.end(), to.begin());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    std::chrono::duration<double> copySpent = std::chrono::steady_clock::now() - copyStart;

    const double perCycle = spent.count() / static_cast<double>(state.iterations());
    const double copy = copySpent.count() / static_cast<double>(rounds);
    state.counters["cycle_us"] = perCycle * 1e6;
    state.counters["ratio_to_copy"] = perCycle / copy;
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(events), benchmark::Counter::kIsRate);
    state.counters["realtime_share"] = perCycle / (frames / 48000.0);
}

}  // namespace

BENCHMARK(playDenseSong)->Arg(256)->Arg(1024)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
