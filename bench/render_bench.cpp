// The demo song rendered offline to a 16-bit WAV file: how many times faster than real time one core
// renders it, measured in processor time so that other work on the machine does not count.

#include <benchmark/benchmark.h>

#include <ctime>
#include <filesystem>

#include "demo_song.h"
#include "files/render.h"

namespace {

void renderDemo(benchmark::State& state) {
    const auto path = std::filesystem::temp_directory_path() / "vantrell-render-bench.wav";
    double songSeconds = 0.0;
    double cpuSeconds = 0.0;
    for (auto _ : state) {
        demo::DemoSong song(48000.0);
        files::AudioWriter writer(path, {48000, 2, files::SampleFormat::int16, files::FileType::wav});
        const std::clock_t start = std::clock();
        const auto result = files::renderOffline(song.engine, {0, song.lengthTicks()}, writer);
        writer.commit();
        cpuSeconds += static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        songSeconds += static_cast<double>(result.frames) / 48000.0;
    }
    std::filesystem::remove(path);
    state.counters["song_s"] = songSeconds / static_cast<double>(state.iterations());
    state.counters["times_realtime"] = songSeconds / cpuSeconds;
}

}  // namespace

BENCHMARK(renderDemo)->Iterations(3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
