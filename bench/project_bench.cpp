// Opening a large project: 64 instrument tracks with 100,000 note events in all, once with the tracks
// alone and once with each track playing a sampler of its own (whose programs and voice memory are made
// as it loads). Beside them, in the same run, the bare cost of getting the same bytes off the disk into
// memory, so that the reader's share shows as a ratio that holds across machines.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "files/project.h"
#include "fx/effects.h"
#include "seq/seq.h"
#include "sound/sampler.h"

namespace {

constexpr int32_t trackCount = 64;
constexpr int32_t eventCount = 100000;

// Writes the large project once, to a file in the temporary folder.
class LargeProject {
public:
    explicit LargeProject(bool samplers)
        : path_(std::filesystem::temp_directory_path() /
                (samplers ? "vantrell_project_bench_samplers.qv" : "vantrell_project_bench.qv")) {
        registerEffects();
        registerSoundComponents();
        CQV engine(EngineOptions{false, 1});
        auto* out = new CAudioOut(&engine);
        out->createPorts();
        engine.addComp(out);
        auto* seq = new CSeq(&engine);
        seq->createPorts();
        engine.addComp(seq);
        for (int32_t t = 0; t < trackCount; ++t) {
            CTrack* track = addTrack(*seq, trackInstrument, nullptr, -1);
            if (samplers) {
                auto* sampler = new CSampler(&engine);
                sampler->createPorts();
                engine.addComp(sampler);
                sampler->midiCablesIn.add(makeMIDICable(sampler, track->firstOutputPort(), sampler->firstInputPort()));
                out->audioCablesIn.add(makeAudioCable(out, sampler->firstOutputChannel(), out->firstInputChannel()));
            }
            CSongTrack& songTrack = *seq->currentProg()->songTracks.getAt(t);
            auto* part = new CMIDIPart();
            part->length = 3840 * 400;
            part->songTrack = &songTrack;
            songTrack.parts.add(part);
            const int32_t notes = eventCount / trackCount + (t < eventCount % trackCount ? 1 : 0);
            for (int32_t k = 0; k < notes; ++k) {
                auto* note = new CMIDIEventRec();
                note->message = packMIDI(0x90, static_cast<uint8_t>(36 + (k * 7 + t) % 48), static_cast<uint8_t>(64 + k % 64));
                note->delta = 240;
                note->duration = 200;
                appendEvent(*part, note);
            }
        }
        files::saveProject(engine, path_.c_str());
        bytes_ = static_cast<int64_t>(std::filesystem::file_size(path_));
    }
    ~LargeProject() { std::filesystem::remove(path_); }
    LargeProject(const LargeProject&) = delete;
    LargeProject& operator=(const LargeProject&) = delete;

    const std::filesystem::path& path() const { return path_; }
    int64_t bytes() const { return bytes_; }

private:
    std::filesystem::path path_;
    int64_t bytes_ = 0;
};

const LargeProject& project(bool samplers) {
    static const LargeProject tracksOnly(false);
    static const LargeProject withSamplers(true);
    return samplers ? withSamplers : tracksOnly;
}

// Argument 1: each track has its sampler.
void BM_OpenProject(benchmark::State& state) {
    const LargeProject& large = project(state.range(0) != 0);
    CQV engine(EngineOptions{false, 1});
    for (auto _ : state) benchmark::DoNotOptimize(files::openProject(engine, large.path().c_str()));
    state.SetBytesProcessed(state.iterations() * large.bytes());
    state.counters["bytes"] = static_cast<double>(large.bytes());
}

// The floor: the file's bytes read into memory, nothing made of them.
void BM_ReadFileIntoMemory(benchmark::State& state) {
    const LargeProject& large = project(state.range(0) != 0);
    std::vector<char> buffer(static_cast<size_t>(large.bytes()));
    for (auto _ : state) {
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(large.path().c_str(), "rb"), std::fclose);
        benchmark::DoNotOptimize(std::fread(buffer.data(), 1, buffer.size(), file.get()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * large.bytes());
}

BENCHMARK(BM_OpenProject)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadFileIntoMemory)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
