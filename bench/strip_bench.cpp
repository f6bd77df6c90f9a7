// Cost of one output channel's strip (trim, four EQ bands, fader and pan, meters, two sends through the
// latency padding, output level) at 48 kHz in blocks of 1024 frames, in nanoseconds per stereo sample,
// beside a plain copy of the same block measured in the same run. A silent block is measured against a
// loud one: silence that has decayed through the filters must cost no more than sound.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <vector>

#include "engine/engine.h"
#include "engine/io.h"

namespace {

constexpr int32_t frames = 1024;
constexpr double rate = 48000.0;
// One second of sound before a silent run, so that the filters decay through the small numbers first.
constexpr int32_t warmUpBlocks = 47;

enum class Signal { loud, silent };

// Plays a prepared block into its channel.
class Feed : public CComp {
public:
    explicit Feed(CQV* engine) : CComp(engine), loud(frames * 2), silent(frames * 2, 0.0f) {
        for (int32_t i = 0; i < frames; ++i) {
            loud[i] = static_cast<float>(0.7 * std::sin(0.05 * i) + 0.2 * std::sin(0.91 * i));
            loud[frames + i] = static_cast<float>(0.7 * std::cos(0.043 * i));
        }
    }
    void createPorts() override {
        addInputPort();
        addOutputChannel();
    }
    void processBlock(int32_t n) override {
        const std::vector<float>& from = playing == Signal::loud ? loud : silent;
        std::copy_n(from.begin(), n, firstOutputChannel()->left());
        std::copy_n(from.begin() + frames, n, firstOutputChannel()->right());
    }
    std::vector<float> loud, silent;
    Signal playing = Signal::loud;
};

struct StripRig {
    StripRig() {
        engine.setSampleRate(rate);
        engine.setBlockSize(frames);
        for (int k = 0; k < 2; ++k) {
            auto* group = new CGroupCh(&engine);
            group->createPorts();
            engine.addGroupChannel(group);
        }
        feed = new Feed(&engine);
        feed->createPorts();
        engine.addComp(feed);
        COutputChannel* channel = feed->firstOutputChannel();
        for (int32_t band = 0; band < COutputChannel::eqBands; ++band) {
            const int32_t first = stripparam::firstEQ + band * 4;
            channel->setParam(first, 1.0f);
            channel->setParam(first + 1, band % 2 ? 0.3f : 0.7f);
            channel->setParam(first + 3, 0.1f);
        }
        channel->trim = 0.1f;
        channel->volume = 0.8f;
        channel->pan = 0.2f;
        channel->outLevel = 0.9f;
        channel->sends[0]->level = 0.5f;
        channel->sends[1]->level = 0.7f;
        channel->sendDelay = 100;
    }

    // What a block costs besides the strip: clearing, and the component's copy of its signal.
    void prepare() {
        feed->beginCycle(frames);
        for (CGroupCh* group : engine.groupChannels) group->beginCycle(frames);
        feed->process(frames);
    }

    void block() {
        prepare();
        feed->processInserts(frames);
        feed->processStrip(frames);
        benchmark::DoNotOptimize(feed->firstOutputChannel()->left());
    }

    CQV engine{EngineOptions{false, 1}};
    Feed* feed = nullptr;
};

// Processor time of this process: the machine may be busy, and the engine here runs on this thread alone.
double processorSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

template <class Fn>
double secondsPerRound(int64_t rounds, Fn fn) {
    const double start = processorSeconds();
    for (int64_t r = 0; r < rounds; ++r) fn();
    return (processorSeconds() - start) / static_cast<double>(rounds);
}

void fullStrip(benchmark::State& state, Signal signal) {
    StripRig rig;
    for (int i = 0; i < warmUpBlocks; ++i) rig.block();
    rig.feed->playing = signal;
    const double start = processorSeconds();
    for (auto _ : state) rig.block();
    const double perBlock = (processorSeconds() - start) / static_cast<double>(state.iterations());

    const int64_t rounds = std::max<int64_t>(state.iterations(), 2000);
    const double around = secondsPerRound(rounds, [&rig] { rig.prepare(); });
    std::vector<float> from(frames * 2, 0.5f), to(frames * 2);
    const double copy = secondsPerRound(rounds, [&] {
        std::copy(from.begin(), from.end(), to.begin());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    });
    const double strip = perBlock - around;
    state.counters["ns_per_sample"] = strip * 1e9 / frames;
    state.counters["copy_ns_per_sample"] = copy * 1e9 / frames;
    state.counters["ratio_to_copy"] = strip / copy;
    state.SetItemsProcessed(state.iterations() * frames);
}

}  // namespace

BENCHMARK_CAPTURE(fullStrip, loud, Signal::loud)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(fullStrip, silent, Signal::silent)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
